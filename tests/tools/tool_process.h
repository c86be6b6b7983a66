// kvreg at work, as a program of its own.
#pragma once

#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

namespace kv::test {

/// One run of the tool that lies beside this program, with words in UTF-8. What it prints goes to two files; without a
/// name for its output into a pipe that nobody reads. Ended, should it still run, with its owner.
class ToolProcess {
  public:
    ToolProcess(std::vector<std::string> words, const std::filesystem::path& output,
                const std::filesystem::path& errors);
    ToolProcess(const ToolProcess&) = delete;
    ToolProcess& operator=(const ToolProcess&) = delete;
    ~ToolProcess();

    /// Waits for its end; -1 when it did not come to one of its own within a minute.
    int ExitCode();

  private:
    std::intptr_t process_ = 0;
};

/// Has the tool and this process share a registry: where that lies in files one in the folder, else the computer's.
void ShareRegistry(const std::filesystem::path& folder);

}  // namespace kv::test

// An installed agent in a folder of its own, as a fixture.
#pragma once

#include <filesystem>
#include <gtest/gtest.h>
#include <string>
#include <string_view>
#include <vector>

#include "platform/files.h"

namespace kv::test {

/// Makes a temporary folder with an install tree (monitoring/bin, conf, conf/scripts, logs) and a state directory,
/// installs the real backend on it, changes to the bin directory, gives agentState its defaults and gv_ocAgentBinPath,
/// and opens the log at level 4. All of it is undone and removed at the end.
class TestAgent : public ::testing::Test {
  public:
    static void Write(const std::filesystem::path& path, std::string_view bytes);
    static std::string ReadText(const std::filesystem::path& path);  // with "\n" as its line ends
    static std::string Read(const std::filesystem::path& path);
    /// Sorted file names.
    static std::vector<std::string> FilesIn(const std::filesystem::path& directory);

  protected:
    TestAgent();
    ~TestAgent() override;

    /// Install tree: <folder>/monitoring.
    std::filesystem::path folder;
    std::filesystem::path bin;      // <folder>/monitoring/bin, the working directory
    std::filesystem::path conf;     // <folder>/monitoring/conf
    std::filesystem::path data;     // bin/data, not made
    std::filesystem::path zipdata;  // bin/zipdata, not made

    /// Everything logged so far, UTF-8.
    std::string LogText() const;
    bool Logged(std::string_view text) const { return LogText().find(text) != std::string::npos; }
    /// How often a text stands in the log, from some place in it on.
    int TimesLogged(std::string_view text, std::size_t from = 0) const;

    /// The current file operations, of which one fails.
    template <class Operation>
    static platform::FileOperations Failing(Operation platform::FileOperations::*operation, platform::Error error) {
        platform::FileOperations files = platform::Files();
        files.*operation = [error](auto&&...) { return error; };
        return files;
    }

  private:
    std::filesystem::path formerDirectory_;
};

/// Puts agentState back to the program's defaults.
void ResetAgentState();

}  // namespace kv::test

// A program of the system as a peer of a test: a database, a browser, an SNMP agent.
#pragma once

#include <filesystem>
#include <functional>
#include <string>

namespace kv::test {

/// A child process with a temporary folder, where it starts and where its output goes to the file "output". It ends
/// with its object, and with the thread that started it; the folder is then removed.
class ChildProgram {
  public:
    ChildProgram();
    ~ChildProgram();
    ChildProgram(const ChildProgram&) = delete;
    ChildProgram& operator=(const ChildProgram&) = delete;

    const std::filesystem::path& folder() const { return folder_; }
    std::string Output() const;

    /// Runs a command line of the shell and waits until isReady says so. Throws std::runtime_error with what the
    /// program printed when it ends before, or is not ready in a minute.
    void Start(const std::string& commandLine, const std::function<bool()>& isReady);

    /// Sends the signal and waits for the end; does nothing when it does not run.
    void Stop(int signal);

  private:
    std::filesystem::path folder_;
    int pid_ = 0;
};

}  // namespace kv::test

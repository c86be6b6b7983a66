// A real systemd for a test, in a box: tools/boxed_systemd.sh.
#pragma once

#include <cstdio>
#include <filesystem>
#include <string>

#include "tests/end_to_end/installed_agent.h"

namespace kv::test {

class BoxedSystem {
  public:
    /// Boots it. The folder is shared under the same path, and holds the log.
    explicit BoxedSystem(const std::filesystem::path& folder);
    /// Ends it and all its processes. The end of this process does the same, however it comes.
    ~BoxedSystem();
    BoxedSystem(const BoxedSystem&) = delete;
    BoxedSystem& operator=(const BoxedSystem&) = delete;

    /// False on a machine that cannot run such a box; the log says why.
    bool isBooted() const { return firstProcess_ > 0; }
    std::string ReadLog() const;

    /// False once it is powered off or ended.
    bool IsRunning() const;

    /// Runs commands of the shell in it as root; the output of both streams.
    ShellOutcome Run(const std::string& commands) const;

  private:
    std::filesystem::path log_;
    FILE* keeper_ = nullptr;  // the script; the box lives while this is open
    int firstProcess_ = 0;
};

}  // namespace kv::test

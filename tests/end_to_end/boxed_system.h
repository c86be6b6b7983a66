// A real systemd for a test, in a box of its own: tools/boxed_systemd.sh.
#pragma once

#include <cstdio>
#include <filesystem>
#include <string>

#include "tests/end_to_end/installed_agent.h"

namespace kv::test {

class BoxedSystem {
  public:
    /// Boots it, with a folder that it shares under the same path, and in which it keeps its log.
    explicit BoxedSystem(const std::filesystem::path& folder);
    /// Ends it with all that runs in it; so does the end of this process, whatever brings it.
    ~BoxedSystem();
    BoxedSystem(const BoxedSystem&) = delete;
    BoxedSystem& operator=(const BoxedSystem&) = delete;

    /// False on a machine that can have no such box; the log says why.
    bool booted() const { return firstProcess_ > 0; }
    std::string log() const;

    /// Whether it is neither powered off nor ended.
    bool running() const;

    /// Runs a shell's commands in it, as the superuser; the output is that of both streams.
    ShellOutcome run(const std::string& commands) const;

  private:
    std::filesystem::path log_;
    FILE* keeper_ = nullptr;  // the script; the box lives as long as this is open
    int firstProcess_ = 0;
};

}  // namespace kv::test

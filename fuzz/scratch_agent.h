// An agent for fuzz targets that need more of it than one codec: its folders in memory, its operations, its log.
#pragma once

#include <cstdlib>
#include <filesystem>
#include <string>
#include <string_view>

#include "agent/backends.h"
#include "agent/entry.h"
#include "foundation/agent_state.h"
#include "foundation/log.h"
#include "foundation/resource_lock.h"
#include "platform/utf.h"

namespace kv::fuzz {

/// Makes an install tree below /dev/shm with its own registry, installs all operations and gives agentState its
/// defaults. The log is on at its highest level, and each line is looked at instead of written. One for the process;
/// the tree goes with it.
class ScratchAgent {
  public:
    ScratchAgent() {
        std::string pattern = "/dev/shm/kvagent-fuzz-XXXXXX";
        if (mkdtemp(pattern.data()) == nullptr) std::abort();
        folder_ = pattern;
        bin = folder_ / "bin";
        std::filesystem::create_directories(bin / "zipdata");
        std::filesystem::create_directories(folder_ / "conf" / "scripts");
        std::filesystem::create_directories(folder_ / "state");
        setenv("KVAGENT_STATE_DIR", (folder_ / "state").c_str(), 1);
        InstallBackends();
        InitMutex();
        InitResourceLockTable();
        InitAgentParams();
        agentState.gv_ocAgentBinPath = platform::WideFromUtf8(bin.string() + "\\");
        logState.listener = LookAtLine;
        logState.gv_logLevel = 4;
    }
    ~ScratchAgent() {
        std::error_code ignored;
        std::filesystem::remove_all(folder_, ignored);
    }
    ScratchAgent(const ScratchAgent&) = delete;
    ScratchAgent& operator=(const ScratchAgent&) = delete;

    std::filesystem::path bin;

  private:
    /// Blanks of all kinds are the formats' own. Any other control character is a stranger's.
    static void LookAtLine(std::string_view line) {
        for (const char c : line)
            if (static_cast<unsigned char>(c) < 0x20 && c != '\t' && c != '\n') __builtin_trap();
    }

    std::filesystem::path folder_;
};

/// The agent works in its bin; the fuzzer finds its files by the directory that it was started in. A crash within is
/// kept when its path is whole (-artifact_prefix).
class InBin {
  public:
    explicit InBin(const ScratchAgent& agent) : former_(std::filesystem::current_path()) {
        std::filesystem::current_path(agent.bin);
    }
    ~InBin() {
        std::error_code ignored;
        std::filesystem::current_path(former_, ignored);
    }
    InBin(const InBin&) = delete;
    InBin& operator=(const InBin&) = delete;

  private:
    std::filesystem::path former_;
};

}  // namespace kv::fuzz

// Memory over many runs of a script workflow: the timer, the schedule, a real child process and a record file for each
// run, with the minutes between them passing at once. Prints the heap in use and the proportional set size after a
// warm-up and after all runs; exit code 1 when the heap has grown by more than the allowance.
#include <cstdio>
#include <exception>
#include <filesystem>
#include <fstream>
#include <malloc.h>
#include <stdlib.h>
#include <string>
#include <sys/stat.h>

#include "agent/entry.h"
#include "agent/log_file.h"
#include "foundation/agent_state.h"
#include "foundation/log.h"
#include "foundation/resource_lock.h"
#include "foundation/timer.h"
#include "jsontext/hash_json.h"
#include "platform/backend.h"
#include "platform/utf.h"
#include "queryconf/schedule.h"
#include "tests/support/virtual_clock.h"

namespace fs = std::filesystem;

namespace {

constexpr int warmUpRuns = 500;
constexpr int measuredRuns = 10000;
constexpr std::size_t allowedBytes = 16 * 1024;

struct Memory {
    std::size_t heapBytes = 0;
    long pssKilobytes = 0;
};

Memory MeasureMemory() {
    Memory memory;
    memory.heapBytes = mallinfo2().uordblks;
    std::ifstream rollup("/proc/self/smaps_rollup");
    for (std::string word; rollup >> word;) {
        if (word == "Pss:") rollup >> memory.pssKilobytes;
    }
    return memory;
}

/// An install tree with one script, in a temporary folder that is the current one as long as this lives.
struct InstallTree {
    fs::path folder;

    InstallTree() {
        std::string pattern = (fs::temp_directory_path() / "kvagent-growth-XXXXXX").string();
        folder = mkdtemp(pattern.data());
        fs::create_directories(folder / "monitoring/bin");
        fs::create_directories(folder / "monitoring/conf/scripts");
        fs::create_directories(folder / "monitoring/logs");
        fs::create_directories(folder / "state");
        const fs::path script = folder / "monitoring/conf/scripts/load.sh";
        std::ofstream(script) << "#!/bin/sh\nread load < /proc/loadavg; echo \"{ \\\"load\\\": \\\"$load\\\" }\"\n";
        fs::permissions(script, fs::perms::owner_all);
        setenv("KVAGENT_STATE_DIR", (folder / "state").c_str(), 1);
        fs::current_path(folder / "monitoring/bin");
    }
    ~InstallTree() {
        fs::current_path("/");
        fs::remove_all(folder);
    }
    InstallTree(const InstallTree&) = delete;
    InstallTree& operator=(const InstallTree&) = delete;
};

void StartAgent(const InstallTree& tree) {
    kv::InitMutex();
    kv::InitResourceLockTable();
    kv::InitAgentParams();
    kv::agentState.gv_ocAgentBinPath = platform::WideFromUtf8((tree.folder / "monitoring/bin\\").string());
    kv::RotateLogger(std::nullopt);
    kv::agentState.gv_queryConfHash = kv::MakeHashTable().release();
    const kv::JsonReadResult plan = kv::JSONTextToHash(
        kv::agentState.gv_queryConfHash,
        uR"({"WorkFlows":[{"interval":1,"recordSetName":[{"script":"load.sh","Name":"L","response_needed":"true"}]}]})");
    if (!plan.ok) std::terminate();
    kv::InitTimerManager();
    kv::scheduleQueryHashData();
}

/// Runs the timer until the workflow has run this often. Removes the records as the uploader would.
void RunTimes(kv::test::VirtualClock& clock, std::uint32_t runs) {
    const std::uint32_t last = kv::agentState.gv_ocLastCreatedJSONNum + runs;
    clock.onSleep = [last](std::uint32_t) {
        for (const auto& entry : fs::directory_iterator("data")) fs::remove(entry.path());
        if (kv::agentState.gv_ocLastCreatedJSONNum >= last) throw kv::test::TimeIsUp();
    };
    try {
        kv::TimerThread(nullptr);
    } catch (const kv::test::TimeIsUp&) {
    }
}

}  // namespace

int main() {
    const InstallTree tree;
    platform::InstallBackend();
    platform::InstallRegistry();
    kv::test::VirtualClock clock;
    StartAgent(tree);
    RunTimes(clock, warmUpRuns);
    const Memory before = MeasureMemory();
    RunTimes(clock, measuredRuns);
    const Memory after = MeasureMemory();
    std::printf("script runs            heap in use, bytes   Pss, kB\n");
    std::printf("%-22d %-20zu %ld\n", warmUpRuns, before.heapBytes, before.pssKilobytes);
    std::printf("%-22d %-20zu %ld\n", warmUpRuns + measuredRuns, after.heapBytes, after.pssKilobytes);
    return after.heapBytes > before.heapBytes + allowedBytes ? 1 : 0;
}

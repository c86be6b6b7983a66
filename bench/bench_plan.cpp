// Loading and scheduling a plan of 10,000 workflows: at most 10 times json-c's bare parse of the same text.
//
// Own: LoadQueryConfig from the UTF-16LE file and ReloadAndScheduleQueryData, at log level 1, with no timer thread.
// Peer: json_tokener_parse of the UTF-8 text in memory.
#include <array>
#include <benchmark/benchmark.h>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <json-c/json.h>
#include <stdlib.h>
#include <string>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include "bench/medians.h"
#include "foundation/agent_state.h"
#include "foundation/file_utils.h"
#include "foundation/log.h"
#include "foundation/resource_lock.h"
#include "foundation/timer.h"
#include "platform/backend.h"
#include "platform/utf.h"
#include "queryconf/config_reload.h"
#include "queryconf/query_config.h"

namespace fs = std::filesystem;

namespace {

using namespace kv;

constexpr int workflowCount = 10000;

std::string text;

std::string Member(const std::string& key, const std::string& value) { return "\"" + key + "\": \"" + value + "\""; }

std::string WmiRecord(const std::string& number) {
    return "{ " + Member("nameSpace", "ROOT\\\\CIMV2") + ", " +
           Member("wmiQuery",
                  "SELECT Name, State, StartMode, ProcessId FROM Win32_Service WHERE Name = 'Service" + number + "'") +
           ", " + Member("Name", "Service" + number) + " }";
}

std::string ScriptRecord(const std::string& number) {
    return "{ " + Member("script", "disk_usage.vbs") + ", " + Member("params", "-volume D: -threshold " + number) +
           ", " + Member("response_needed", "true") + ", " + Member("Name", "DiskUsage" + number) + " }";
}

std::string SnmpRecord(const std::string& number) {
    return "{ " + Member("PROTOCOL", "SPOLL") + ", " + Member("OID", ".1.3.6.1.2.1.2.2.1.10,.1.3.6.1.2.1.2.2.1.16") +
           ", " + Member("DEVICE_NAME", "switch-" + number + ".example.net") + ", " + Member("SNMP_VERSION", "v2c") +
           ", " + Member("COMMUNITY", "public") + ", " + Member("SNMP_PORT", "161") + ", " + Member("POLL_ID", number) +
           ", " + Member("IS_MULTIPLE_POLLED_DATA", "true") + " }";
}

/// A plan with the three kinds of records in turn; every other workflow has two records.
std::string MakePlan() {
    std::string plan = "{ \"WorkFlows\": [\n";
    for (int i = 0; i < workflowCount; ++i) {
        const std::string number = std::to_string(i);
        const auto record = [&](int kind) {
            return kind == 0 ? WmiRecord(number) : kind == 1 ? ScriptRecord(number) : SnmpRecord(number);
        };
        plan += i == 0 ? "" : ",\n";
        plan += "{ " + Member("wfname", "Workflow " + number) + ", \"interval\": " + std::to_string(1 + i % 60) +
                ", \"order\": " + number + ", \"recordSetName\": [ " + record(i % 3) +
                (i % 2 == 0 ? "" : ", " + record((i + 1) % 3)) + " ] }";
    }
    return plan + "\n] }\n";
}

/// An install tree in a temporary folder, which is the current one as long as this lives.
struct InstallTree {
    fs::path folder;

    InstallTree() {
        std::string pattern = (fs::temp_directory_path() / "kvagent-plan-XXXXXX").string();
        folder = mkdtemp(pattern.data());
        fs::create_directories(folder / "monitoring/bin");
        fs::create_directories(folder / "monitoring/conf");
        setenv("KVAGENT_STATE_DIR", folder.c_str(), 1);
        fs::current_path(folder / "monitoring/bin");
        platform::InstallBackend();
        std::ofstream("../conf/queryconf.txt", std::ios::binary)
            << Utf16LittleEndianBytes(platform::WideFromUtf8(text));
    }
    ~InstallTree() {
        fs::current_path("/");
        fs::remove_all(folder);
    }
    InstallTree(const InstallTree&) = delete;
    InstallTree& operator=(const InstallTree&) = delete;
};

double ProcessorSeconds() {
    timespec time{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &time);
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) / 1e9;
}

/// Processor time of a piece of work in a new process, or a negative number when the work fails. The time depends on
/// the heap, so each run starts with the same untouched one.
double SecondsInNewProcess(bool (*work)()) {
    std::array<int, 2> channel{};
    if (pipe(channel.data()) != 0) return -1;
    const pid_t child = fork();
    if (child == 0) {
        const double start = ProcessorSeconds();
        const bool done = work();
        const double seconds = done ? ProcessorSeconds() - start : -1;
        _exit(write(channel[1], &seconds, sizeof seconds) == sizeof seconds ? 0 : 1);
    }
    close(channel[1]);
    double seconds = -1;
    if (read(channel[0], &seconds, sizeof seconds) != sizeof seconds) seconds = -1;
    close(channel[0]);
    waitpid(child, nullptr, 0);
    return seconds;
}

bool ParseBarely() { return json_tokener_parse(text.c_str()) != nullptr; }

bool LoadAndSchedule() {
    LoadQueryConfig(u"", std::nullopt);
    ReloadAndScheduleQueryData();
    return agentState.gv_sortVec && agentState.gv_sortVec->count == workflowCount;
}

void Measure(benchmark::State& state, bool (*work)()) {
    for (auto iteration : state) {
        const double seconds = SecondsInNewProcess(work);
        if (seconds < 0) std::exit(2);
        state.SetIterationTime(seconds);
    }
}

BENCHMARK_CAPTURE(Measure, json_c, ParseBarely)->Unit(benchmark::kMillisecond)->UseManualTime()->Repetitions(9);
BENCHMARK_CAPTURE(Measure, plan, LoadAndSchedule)->Unit(benchmark::kMillisecond)->UseManualTime()->Repetitions(9);

}  // namespace

int main(int argc, char** argv) {
    constexpr double limit = 10;
    kv::bench::InitializeInterleaved(argc, argv);

    text = MakePlan();
    const InstallTree tree;
    InitMutex();
    logState.gv_logLevel = 1;
    InitTimerManager();
    kv::bench::MedianReporter reporter("Measure/json_c");
    benchmark::RunSpecifiedBenchmarks(&reporter);
    const double ratio = reporter.own / reporter.peer;
    std::printf("a plan of %d workflows (%zu bytes in UTF-8): %.1f ms, json-c %.1f ms, ratio %.2f (limit %.1f)\n",
                workflowCount, text.size(), reporter.own, reporter.peer, ratio, limit);
    return ratio <= limit ? 0 : 1;
}

// kvagentctl status, from its start to its end: at most 50 ms. The agent's state is that of an outage: a plan of 200
// workflows, 500 zips and 1,000 records that wait.
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <spawn.h>
#include <stdlib.h>
#include <string>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

#include "agent/health_file.h"
#include "foundation/registry_store.h"
#include "platform/backend.h"
#include "platform/utf.h"

namespace fs = std::filesystem;

namespace {

using namespace kv;

constexpr int rounds = 31;
constexpr double limit = 50;  // milliseconds

/// The state of an agent in a temporary folder, which the tool finds by the environment.
struct AgentTree {
    fs::path folder;

    AgentTree() {
        std::string pattern = (fs::temp_directory_path() / "kvagent-status-XXXXXX").string();
        folder = mkdtemp(pattern.data());
        setenv("KVAGENT_STATE_DIR", folder.c_str(), 1);
        platform::InstallBackend();
        platform::InstallRegistry();
        for (const char* directory : {"bin/zipdata", "bin/data", "logs", "conf"})
            fs::create_directories(folder / "monitoring" / directory);
        writeValue(platform::RootKey::localMachine, agentKeyPath, u"KVAgentInstallDir",
                   platform::WideFromUtf8(folder.string() + "/"), platform::RegistryType::text);
        WritePlan();
        for (int i = 0; i < 500; ++i) WriteFile("bin/zipdata/Agent_K_" + std::to_string(i) + ".zip");
        for (int i = 0; i < 1000; ++i) WriteFile("bin/data/Agent_K_" + std::to_string(i) + ".txt");
        HealthSnapshot health = CurrentHealth();
        if (WriteHealthFile(platform::WideFromUtf8((folder / "monitoring/logs/status.json").string()), health) != 0)
            std::exit(2);
    }
    ~AgentTree() { fs::remove_all(folder); }
    AgentTree(const AgentTree&) = delete;
    AgentTree& operator=(const AgentTree&) = delete;

    void WriteFile(const std::string& name) const { std::ofstream(folder / "monitoring" / name) << "record"; }

    void WritePlan() const {
        std::ofstream plan(folder / "monitoring/conf/queryconf.txt");
        plan << "{ \"WorkFlows\": [ ";
        for (int i = 0; i < 200; ++i)
            plan << (i == 0 ? "" : ", ") << R"({ "wfname": "w", "interval": 5, "recordSetName": [ { "Name": "Disks", )"
                 << R"("wmiQuery": "SELECT Name, FreeSpace FROM Win32_LogicalDisk WHERE DriveType = 3" } ] })";
        plan << " ] }";
    }
};

/// Wall time of one run in milliseconds, or a negative number when it fails.
double RunOnce() {
    std::string program = KVAGENTCTL_PROGRAM;
    std::string verb = "status";
    char* words[] = {program.data(), verb.data(), nullptr};
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
    const auto start = std::chrono::steady_clock::now();
    pid_t child = 0;
    int status = -1;
    if (posix_spawn(&child, program.c_str(), &actions, nullptr, words, environ) == 0) waitpid(child, &status, 0);
    const std::chrono::duration<double, std::milli> taken = std::chrono::steady_clock::now() - start;
    posix_spawn_file_actions_destroy(&actions);
    return WIFEXITED(status) && WEXITSTATUS(status) == 0 ? taken.count() : -1;
}

}  // namespace

int main() {
    const AgentTree tree;
    std::vector<double> times;
    for (int i = 0; i < rounds; ++i) times.push_back(RunOnce());
    std::sort(times.begin(), times.end());
    std::printf("kvagentctl status: %.1f ms, the slowest of %d runs %.1f ms (limit %.0f ms)\n", times[rounds / 2],
                rounds, times.back(), limit);
    return times.front() > 0 && times[rounds / 2] <= limit ? 0 : 1;
}

// A walk of a table of 5,000 rows of one snmpd, against the snmpwalk command doing the same. Both ask for one value at
// a time; the engine opens a socket for each exchange, the command one for all. User time at most half of the
// command's, user and system time together at most 1.3 times, wall time at most 1.15 times.
#include <algorithm>
#include <array>
#include <chrono>
#include <cstdio>
#include <fcntl.h>
#include <spawn.h>
#include <string>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

#include "platform/backend.h"
#include "snmp/snmp_manager.h"
#include "tests/support/snmp_devices.h"

namespace {

constexpr int rows = 5000;
constexpr int rounds = 41;
constexpr const char* table = ".1.3.6.1.4.1.8072.1.3.2.4.1.2";

/// Milliseconds of one walk.
struct Cost {
    double user = 0;
    double system = 0;
    double wall = 0;
};

double MillisecondsOf(const timeval& time) {
    return static_cast<double>(time.tv_sec) * 1e3 + static_cast<double>(time.tv_usec) / 1e3;
}

class Stopwatch {
  public:
    double wall() const { return std::chrono::duration<double, std::milli>(Clock::now() - start_).count(); }

  private:
    using Clock = std::chrono::steady_clock;
    Clock::time_point start_ = Clock::now();
};

bool WalkHere(std::uint16_t port, Cost& cost) {
    rusage before{};
    rusage after{};
    getrusage(RUSAGE_SELF, &before);
    const Stopwatch watch;
    const kv::SnmpResponsePtr response(
        kv::SnmpManagerRequest("127.0.0.1", port, 5, "public", kv::snmpWalk, "v2c", &table, 1, 1, nullptr));
    cost.wall = watch.wall();
    getrusage(RUSAGE_SELF, &after);
    cost.user = MillisecondsOf(after.ru_utime) - MillisecondsOf(before.ru_utime);
    cost.system = MillisecondsOf(after.ru_stime) - MillisecondsOf(before.ru_stime);
    return response && response->results[0] && response->results[0]->valueCount == rows;
}

bool WalkByCommand(std::uint16_t port, Cost& cost) {
    const std::string where = "127.0.0.1:" + std::to_string(port);
    const std::array<const char*, 10> line{"snmpwalk", "-v2c", "-c",          "public", "-m",
                                           "",         "-On",  where.c_str(), table,    nullptr};
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
    pid_t pid = 0;
    const Stopwatch watch;
    const int spawned = posix_spawnp(&pid, line[0], &actions, nullptr, const_cast<char* const*>(line.data()), environ);
    posix_spawn_file_actions_destroy(&actions);
    int status = 0;
    rusage used{};
    if (spawned != 0 || wait4(pid, &status, 0, &used) != pid) return false;
    cost = {MillisecondsOf(used.ru_utime), MillisecondsOf(used.ru_stime), watch.wall()};
    return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

/// The kernel tells user from system time by sampling, so these are means; the wall time is the median.
Cost Typical(const std::vector<Cost>& costs) {
    Cost typical;
    std::vector<double> walls;
    for (const Cost& cost : costs) {
        typical.user += cost.user / static_cast<double>(costs.size());
        typical.system += cost.system / static_cast<double>(costs.size());
        walls.push_back(cost.wall);
    }
    std::nth_element(walls.begin(), walls.begin() + rounds / 2, walls.end());
    typical.wall = walls[rounds / 2];
    return typical;
}

bool Within(const char* what, double own, double peer, double limit) {
    std::printf("%-16s %8.1f ms, snmpwalk %8.1f ms, ratio %.2f (limit %.2f)\n", what, own, peer, own / peer, limit);
    return own / peer <= limit;
}

}  // namespace

int main() {
    platform::InstallBackend();
    const kv::test::SnmpDaemon device("extend rows /bin/seq 1 " + std::to_string(rows));
    std::vector<Cost> own(rounds);
    std::vector<Cost> peer(rounds);
    Cost warmUp;
    bool complete = WalkHere(device.port(), warmUp) && WalkByCommand(device.port(), warmUp);
    for (int i = 0; i < rounds && complete; ++i) {
        const auto at = static_cast<std::size_t>(i);
        complete = WalkByCommand(device.port(), peer[at]) && WalkHere(device.port(), own[at]);
    }
    if (!complete) {
        std::printf("a walk is not complete\n");
        return 1;
    }
    const Cost here = Typical(own);
    const Cost there = Typical(peer);
    std::printf("walking %d rows, %d times each; %.2f us of user time a value here\n", rows, rounds,
                here.user * 1e3 / rows);
    const bool user = Within("user", here.user, there.user, 0.5);
    const bool total = Within("user and system", here.user + here.system, there.user + there.system, 1.3);
    const bool wall = Within("wall", here.wall, there.wall, 1.15);
    return user && total && wall ? 0 : 1;
}

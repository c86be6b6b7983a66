// How a whole tree is caught: the child is stopped first, then its descendants, until a look at the process table shows
// no one in the tree who could still start another. Then all are killed. A stopped child stays alive, so whoever
// loses a parent meanwhile becomes a child of it and stays in the tree.
#include "platform/posix/process_tree.h"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <string_view>
#include <time.h>
#include <unordered_set>
#include <vector>

namespace platform {

namespace {

namespace fs = std::filesystem;

/// Bounds the hunt for a tree that will not hold still; a stop takes effect within a few milliseconds.
constexpr int mostLooks = 100;
constexpr long lookIntervalNanoseconds = 2'000'000;

struct ProcessEntry {
    pid_t id = 0;
    pid_t parent = 0;
    char state = 'X';  // as in proc(5)
};

/// Reads /proc/<id>/stat: "id (name) state parent ...", where the name may hold any character.
ProcessEntry ParseStat(pid_t id, const std::string& text) {
    ProcessEntry entry{id, 0, 'X'};
    const std::size_t afterName = text.rfind(") ");
    if (afterName == std::string::npos || afterName + 4 >= text.size()) return entry;
    entry.state = text[afterName + 2];
    std::from_chars(text.data() + afterName + 4, text.data() + text.size(), entry.parent);
    return entry;
}

std::vector<ProcessEntry> ReadProcessTable() {
    std::vector<ProcessEntry> table;
    std::error_code failure;
    for (fs::directory_iterator at("/proc", failure), end; !failure && at != end; at.increment(failure)) {
        const std::string name = at->path().filename().string();
        pid_t id = 0;
        const auto [parsedTo, ok] = std::from_chars(name.data(), name.data() + name.size(), id);
        if (ok != std::errc() || parsedTo != name.data() + name.size()) continue;
        std::ifstream file("/proc/" + name + "/stat");
        std::string text;  // stays empty when the process has gone in the meantime
        std::getline(file, text, '\0');
        table.push_back(ParseStat(id, text));
    }
    return table;
}

/// The root's entry and those of all its descendants.
std::vector<ProcessEntry> ReadTree(pid_t root) {
    std::vector<ProcessEntry> rest = ReadProcessTable();
    std::vector<ProcessEntry> tree;
    std::unordered_set<pid_t> members;
    const auto belongs = [&](const ProcessEntry& entry) { return entry.id == root || members.contains(entry.parent); };
    for (;;) {
        const auto outside = std::partition(rest.begin(), rest.end(), belongs);
        if (outside == rest.begin()) return tree;
        for (auto entry = rest.begin(); entry != outside; ++entry) members.insert(entry->id);
        tree.insert(tree.end(), rest.begin(), outside);
        rest.erase(rest.begin(), outside);
    }
}

/// Stopped, traced, or at its end.
bool HoldsStill(const ProcessEntry& entry) { return std::string_view("TtZXx").find(entry.state) != std::string::npos; }

/// Stops a tree and gives what it then consists of. Two looks in a row must find everyone still: a process that was
/// just being born at the first is there at the second.
std::vector<ProcessEntry> StopTree(pid_t root) {
    kill(root, SIGSTOP);
    std::vector<ProcessEntry> tree;
    int quietLooks = 0;
    for (int look = 0; look < mostLooks && quietLooks < 2; ++look) {
        tree = ReadTree(root);
        bool quiet = true;
        for (const ProcessEntry& entry : tree) {
            if (HoldsStill(entry)) continue;
            // One that may not be signalled will not stop, however often it is looked at.
            if (kill(entry.id, SIGSTOP) == 0) quiet = false;
        }
        quietLooks = quiet ? quietLooks + 1 : 0;
        if (quiet) continue;
        const timespec interval{0, lookIntervalNanoseconds};
        nanosleep(&interval, nullptr);
    }
    return tree;
}

}  // namespace

Error KillProcessTree(pid_t child) {
    const std::vector<ProcessEntry> tree = StopTree(child);
    bool refused = false;
    for (const ProcessEntry& entry : tree) {
        if (entry.id != child && kill(entry.id, SIGKILL) != 0 && errno == EPERM) refused = true;
    }
    kill(-child, SIGKILL);
    if (kill(child, SIGKILL) != 0 && errno == EPERM) refused = true;
    return refused ? error::accessDenied : error::success;
}

}  // namespace platform

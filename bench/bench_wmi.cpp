// What a query costs, from its text to the rows of a record.
//
// All of Win32_OperatingSystem takes under a millisecond. Three properties of every process take at most the processor
// time of the ps command that prints the same, with the processes of this machine and with a thousand more. With WHERE
// on ProcessId a query reads only that process: at most three calls of read. One package by its name takes at most
// 50 ms, and so does a query that bounds RecordNumber or TimeGenerated, of 300,000 entries of a journal that
// systemd-journal-remote has written.
#include <algorithm>
#include <array>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <fmt/format.h>
#include <fstream>
#include <spawn.h>
#include <string>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

#include "collection/wmi_query.h"
#include "foundation/vector.h"
#include "platform/backend.h"
#include "platform/utf.h"
#include "wql/classes/system/event_log.h"
#include "wql/query.h"

namespace {

constexpr int rounds = 201;
constexpr std::size_t moreProcesses = 1000;
constexpr double systemLimit = 1.0;   // milliseconds
constexpr double processLimit = 1.0;  // of what ps takes
constexpr double packageLimit = 50;   // milliseconds
constexpr double journalLimit = 50;   // milliseconds
constexpr int journalEntries = 300000;
constexpr const char16_t* processQuery = u"SELECT Name, ProcessId, WorkingSetSize FROM Win32_Process";

double MillisecondsOf(const rusage& used) {
    const auto milliseconds = [](const timeval& time) {
        return static_cast<double>(time.tv_sec) * 1e3 + static_cast<double>(time.tv_usec) / 1e3;
    };
    return milliseconds(used.ru_utime) + milliseconds(used.ru_stime);
}

/// Rows of a query, or -1 when it fails.
std::int32_t CountRows(std::u16string_view query) {
    const kv::VectorPtr rows = kv::MakeVector();
    const std::u16string message = kv::WMIFunction(std::nullopt, std::u16string(query), rows.get());
    return message == u"NO ERROR" ? rows->count : -1;
}

/// Processor time of all threads of this process, milliseconds.
double ProcessorTime() {
    timespec time{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &time);
    return static_cast<double>(time.tv_sec) * 1e3 + static_cast<double>(time.tv_nsec) / 1e6;
}

double ProcessorTimeOfPs() {
    const std::array<const char*, 4> line{"ps", "-eo", "comm,pid,rss", nullptr};
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
    pid_t pid = 0;
    const int spawned = posix_spawnp(&pid, line[0], &actions, nullptr, const_cast<char* const*>(line.data()), environ);
    posix_spawn_file_actions_destroy(&actions);
    int status = 0;
    rusage used{};
    if (spawned != 0 || wait4(pid, &status, 0, &used) != pid || status != 0) return 0;
    return MillisecondsOf(used);
}

/// Calls of read that this process has made.
long Reads() {
    std::FILE* file = std::fopen("/proc/self/io", "r");
    long reads = 0;
    char name[32];
    long value = 0;
    while (file != nullptr && std::fscanf(file, "%31[^:]: %ld\n", name, &value) == 2) {
        if (std::string(name) == "syscr") reads = value;
    }
    if (file != nullptr) std::fclose(file);
    return reads;
}

bool Within(const char* what, double figure, double limit) {
    std::printf("%-60s %8.3f (limit %.3f)\n", what, figure, limit);
    return figure <= limit;
}

/// The median time of a query that gives one row.
bool MeasureOneRow(const char* title, const char16_t* query, double limit) {
    std::vector<double> times;
    for (int i = 0; i < rounds; ++i) {
        const auto start = std::chrono::steady_clock::now();
        if (CountRows(query) != 1) return false;
        times.push_back(std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start).count());
    }
    std::nth_element(times.begin(), times.begin() + rounds / 2, times.end());
    return Within(title, times[rounds / 2], limit);
}

bool MeasureOperatingSystem() {
    constexpr const char16_t* query = u"SELECT * FROM Win32_OperatingSystem";
    return MeasureOneRow("SELECT * FROM Win32_OperatingSystem, ms", query, systemLimit);
}

bool MeasureOnePackage() {
    constexpr const char16_t* query = u"SELECT * FROM Win32_Product WHERE Name = 'bash'";
    return MeasureOneRow("SELECT * FROM Win32_Product WHERE Name = 'bash', ms", query, packageLimit);
}

/// The kernel tells a command's time by sampling, so these are means.
bool MeasureProcesses(const char* what) {
    double own = 0;
    double peer = 0;
    std::int32_t rows = 0;
    for (int i = 0; i < rounds; ++i) {
        const double start = ProcessorTime();
        rows = CountRows(processQuery);
        own += (ProcessorTime() - start) / rounds;
        peer += ProcessorTimeOfPs() / rounds;
    }
    if (rows < 1 || peer <= 0) return false;
    std::printf("%s: %d processes, %.3f ms of processor time; ps -eo comm,pid,rss %.3f ms\n", what, rows, own, peer);
    return Within("  ratio", own / peer, processLimit);
}

bool MeasureOneProcess() {
    const std::u16string query = std::u16string(processQuery) + u" WHERE ProcessId = 1";
    const long before = Reads();
    const std::int32_t all = CountRows(processQuery);
    const long between = Reads();
    if (CountRows(query) != 1) return false;
    const long after = Reads();
    const long counting = Reads() - after;  // what counting itself costs
    std::printf("reads: %ld for %d processes, %ld for one\n", between - before - counting, all,
                after - between - counting);
    return Within("WHERE ProcessId = 1, reads", static_cast<double>(after - between - counting), 3);
}

std::vector<pid_t> StartSleepers() {
    std::vector<pid_t> sleepers;
    const pid_t parent = getpid();
    for (std::size_t i = 0; i < moreProcesses; ++i) {
        const pid_t child = fork();
        if (child == 0) {
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            while (getppid() == parent) pause();
            _exit(0);
        }
        if (child > 0) sleepers.push_back(child);
    }
    return sleepers;
}

void EndSleepers(const std::vector<pid_t>& sleepers) {
    for (const pid_t child : sleepers) kill(child, SIGKILL);
    for (const pid_t child : sleepers) waitpid(child, nullptr, 0);
}

/// The folder of the benchmark's journal.
std::string journalFolder;

/// Writes a journal with an entry for each second, of twenty programs, all facilities and priorities.
bool MakeJournal() {
    std::string folder = (std::filesystem::temp_directory_path() / "bench-journal-XXXXXX").string();
    if (mkdtemp(folder.data()) == nullptr) return false;
    journalFolder = folder;
    constexpr const char* form =
        "__REALTIME_TIMESTAMP={0}000000\n__MONOTONIC_TIMESTAMP={1}000000\n_BOOT_ID={2:032x}\nPRIORITY={3}\n"
        "SYSLOG_FACILITY={4}\nSYSLOG_IDENTIFIER=program{5}\nMESSAGE=Something that program {5} says, number {1}\n"
        "_UID=0\n_PID={6}\n_COMM=program{5}\n_HOSTNAME=bench\n_SOURCE_REALTIME_TIMESTAMP={0}000000\n\n";
    constexpr std::int64_t start = 1795564800;  // seconds: 2026-11-25T00:00:00Z
    std::ofstream entries(folder + "/entries");
    for (int i = 0; i < journalEntries; ++i) {
        entries << fmt::format(fmt::runtime(form), start + i, i + 1, 1, i % 8, i % 24, i % 20, i % 30000);
    }
    entries.close();
    return std::system(
               fmt::format("/lib/systemd/systemd-journal-remote --output={0}/test.journal {0}/entries 2>/dev/null",
                           folder)
                   .c_str()) == 0;
}

/// Rows of a query for the benchmark's journal, or -1 when it fails.
int CountEvents(std::u16string_view query) {
    using namespace kv::wql;
    WqlStatement statement;
    BoundQuery bound;
    if (IsFailure(ParseWql(query, statement)) || IsFailure(BindQuery(std::get<WqlQuery>(statement), bound))) return -1;
    ClassInfo events = *bound.parts.front().classInfo;
    events.gather = [](const Gathering& gathering) { return GatherEvents(gathering, {journalFolder}); };
    bound.parts.front().classInfo = &events;
    int rows = 0;
    const auto status =
        RunQuery(bound, {[&rows](const ResultObject&) { ++rows; }, [] { return true; }, [](const auto&) {}});
    return IsFailure(status) ? -1 : rows;
}

bool MeasureJournal() {
    constexpr std::pair<const char16_t*, int> queries[] = {
        {u"SELECT EventCode,EventIdentifier,Type,LogFile,SourceName,Message,TimeGenerated FROM Win32_NTLogEvent "
         u"WHERE (Logfile=\"System\") AND EventType<=2 AND TimeGenerated>=\"20261128101959.000000+000\"",
         450},
        {u"SELECT * FROM Win32_NTLogEvent WHERE RecordNumber>299900", 100},
        {u"SELECT * FROM Win32_NTLogEvent WHERE RecordNumber>=123456 AND RecordNumber<=123556", 101},
        {u"SELECT * FROM Win32_NTLogEvent", 1000},
    };
    bool good = true;
    for (const auto& [query, rows] : queries) {
        std::array<double, 21> times{};
        for (double& time : times) {
            const auto begin = std::chrono::steady_clock::now();
            if (const int found = CountEvents(query); found != rows) {
                std::printf("%s: %d rows, not %d\n", platform::Utf8FromWide(query).c_str(), found, rows);
                return false;
            }
            time = std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - begin).count();
        }
        std::nth_element(times.begin(), times.begin() + times.size() / 2, times.end());
        std::printf("%s:\n", platform::Utf8FromWide(query).c_str());
        good = Within("  of 300,000 entries, ms", times[times.size() / 2], journalLimit) && good;
    }
    return good;
}

}  // namespace

int main() {
    platform::InstallBackend();
    platform::InstallWmi();
    bool good = MeasureOperatingSystem();
    good = MeasureOnePackage() && good;
    good = MakeJournal() && MeasureJournal() && good;
    if (!journalFolder.empty()) std::filesystem::remove_all(journalFolder);
    good = MeasureProcesses("the processes of this machine") && good;
    const std::vector<pid_t> sleepers = StartSleepers();
    good = MeasureProcesses("a thousand more") && good;
    good = MeasureOneProcess() && good;
    EndSleepers(sleepers);
    return good ? 0 : 1;
}

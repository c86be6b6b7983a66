#include "wql/classes/software/processes.h"

#include <algorithm>
#include <fmt/format.h>
#include <sys/utsname.h>
#include <unistd.h>

#include "facts/network/host_names.h"
#include "facts/software/distribution.h"
#include "facts/system_text.h"
#include "wql/class_tree.h"

namespace kv::wql {

namespace {

using enum CimType;

struct Need {
    enum Bits : std::uint32_t {
        stat = 1,
        name = 2,
        commandLine = 4,
        executable = 8,
        memory = 16,
        io = 32,
        handles = 64,
        host = 128,
        systemStart = 256,
        system = 512,
    };
};

/// It is always there.
constexpr std::uint32_t firstProcess = 1;

struct Row {
    facts::ProcessStat stat;
    std::string arguments;  // as /proc/<id>/cmdline has them
    std::optional<std::string> executable;
    std::optional<facts::ProcessMemory> memory;
    std::optional<facts::ProcessIo> io;
    std::optional<std::uint64_t> handles;

    // the same for all processes
    std::u16string host;
    std::string systemName;
    std::string systemVersion;
    std::int64_t systemStart = 0;  // milliseconds since 1970
};

CimValue CommandLineIn(const Row& row) {
    const std::string line = facts::CommandLineOf(row.arguments);
    return line.empty() ? CimValue() : CimValue(line);
}

std::u16string CreationDateIn(const Row& row) {
    constexpr std::int64_t microsecondsPerMillisecond = 1000;
    constexpr std::uint64_t microsecondsPerSecond = 1'000'000;
    const std::uint64_t sinceStart = row.stat.startTicks * (microsecondsPerSecond / facts::ClockTicksPerSecond());
    return DmtfTime(row.systemStart * microsecondsPerMillisecond + static_cast<std::int64_t>(sinceStart));
}

/// The state of a process by its number in CIM_Process.
std::uint16_t ExecutionStateOf(char state) {
    constexpr struct {
        std::string_view states;
        std::uint16_t number;
    } meanings[] = {
        {"R", 3},    // running
        {"SDI", 4},  // blocked
        {"ZX", 7},   // terminated
        {"Tt", 8},   // stopped
    };
    for (const auto& meaning : meanings) {
        if (meaning.states.find(state) != std::string_view::npos) return meaning.number;
    }
    return 1;  // other
}

/// Memory that a process does not share, in bytes.
std::optional<std::uint64_t> PrivateBytesIn(const Row& row) {
    if (!row.memory) return std::nullopt;
    return row.memory->anonymous + row.memory->swapped;
}

std::optional<std::uint64_t> KilobytesOf(std::optional<std::uint64_t> bytes) {
    constexpr std::uint64_t kilobyte = 1024;
    if (!bytes) return std::nullopt;
    return *bytes / kilobyte;
}

template <class Record>
std::optional<std::uint64_t> NumberIn(const std::optional<Record>& record, std::uint64_t Record::*number) {
    if (!record) return std::nullopt;
    return (*record).*number;
}

constexpr auto nameIn = [](const Row& row) { return facts::ExecutableNameOf(row.stat, row.arguments); };

// clang-format off
constexpr PropertyInfo properties[] = {
    {u"Caption", string, Need::name, "as Name", nameIn},
    {u"CommandLine", string, Need::commandLine, "arguments separated by blanks, at most 32767 bytes; NULL for kernel threads",
        [](const Row& row) { return CommandLineIn(row); }},
    {u"CreationClassName", string, 0, "this class", [](const Row&) { return u"Win32_Process"; }},
    {u"CreationDate", datetime, Need::systemStart, "start time of stat, to 10 ms", [](const Row& row) { return CreationDateIn(row); }},
    {u"CSCreationClassName", string, 0, "the computer's class", [](const Row&) { return u"Win32_ComputerSystem"; }},
    {u"CSName", string, Need::host, "the computer's name", [](const Row& row) { return row.host; }},
    {u"Description", string, Need::name, "as Name", nameIn},
    {u"ExecutablePath", string, Need::executable, "the target of the link exe", [](const Row& row) { return row.executable; }},
    {u"ExecutionState", uint16, 0, "3 running, 4 waiting, 7 ended but not yet reaped, 8 stopped, 1 other",
        [](const Row& row) { return ExecutionStateOf(row.stat.state); }},
    {u"Handle", string, 0, "as ProcessId", [](const Row& row) { return std::to_string(row.stat.id); }},
    {u"HandleCount", uint32, Need::handles, "open files", [](const Row& row) { return row.handles; }},
    {u"InstallDate", datetime},
    {u"KernelModeTime", uint64, 0, "100 ns, stime of stat", [](const Row& row) { return facts::TimeOfTicks(row.stat.kernelTicks); }},
    {u"MaximumWorkingSetSize", uint32},
    {u"MinimumWorkingSetSize", uint32},
    {u"Name", string, Need::name, "of the executable", nameIn},
    {u"OSCreationClassName", string, 0, "the system's class", [](const Row&) { return u"Win32_OperatingSystem"; }},
    {u"OSName", string, Need::system, "as Name of the system", [](const Row& row) { return row.systemName; }},
    {u"OtherOperationCount", uint64},
    {u"OtherTransferCount", uint64},
    {u"PageFaults", uint32, 0, "major and minor ones, of stat",
        [](const Row& row) { return row.stat.minorFaults + row.stat.majorFaults; }},
    {u"PageFileUsage", uint32, Need::memory, "KB, as PrivatePageCount", [](const Row& row) { return KilobytesOf(PrivateBytesIn(row)); }},
    {u"ParentProcessId", uint32, 0, "of stat", [](const Row& row) { return row.stat.parentId; }},
    {u"PeakPageFileUsage", uint32},
    {u"PeakVirtualSize", uint64, Need::memory, "bytes, VmPeak of status",
        [](const Row& row) { return NumberIn(row.memory, &facts::ProcessMemory::peakVirtual); }},
    {u"PeakWorkingSetSize", uint32, Need::memory, "KB, VmHWM of status",
        [](const Row& row) { return KilobytesOf(NumberIn(row.memory, &facts::ProcessMemory::peakResident)); }},
    {u"Priority", uint32, 0, "24 real time, else 13 to 4 by the nice value, 8 normal",
        [](const Row& row) { return facts::BasePriorityOf(row.stat); }},
    {u"PrivatePageCount", uint64, Need::memory, "bytes that belong to no file, resident or swapped out; RssAnon and VmSwap of status",
        [](const Row& row) { return PrivateBytesIn(row); }},
    {u"ProcessId", uint32, 0, "of stat", [](const Row& row) { return row.stat.id; }},
    {u"QuotaNonPagedPoolUsage", uint32},
    {u"QuotaPagedPoolUsage", uint32},
    {u"QuotaPeakNonPagedPoolUsage", uint32},
    {u"QuotaPeakPagedPoolUsage", uint32},
    {u"ReadOperationCount", uint64, Need::io, "syscr of io", [](const Row& row) { return NumberIn(row.io, &facts::ProcessIo::readOperations); }},
    {u"ReadTransferCount", uint64, Need::io, "bytes, rchar of io", [](const Row& row) { return NumberIn(row.io, &facts::ProcessIo::readBytes); }},
    {u"SessionId", uint32, 0, "of stat: the id of the session's first process", [](const Row& row) { return row.stat.sessionId; }},
    {u"Status", string},
    {u"TerminationDate", datetime},
    {u"ThreadCount", uint32, 0, "of stat", [](const Row& row) { return row.stat.threads; }},
    {u"UserModeTime", uint64, 0, "100 ns, utime of stat", [](const Row& row) { return facts::TimeOfTicks(row.stat.userTicks); }},
    {u"VirtualSize", uint64, 0, "bytes, vsize of stat", [](const Row& row) { return row.stat.virtualBytes; }},
    {u"WindowsVersion", string, Need::system, "the kernel's release", [](const Row& row) { return row.systemVersion; }},
    {u"WorkingSetSize", uint64, 0, "bytes resident, rss of stat", [](const Row& row) { return row.stat.residentPages * facts::PageSize(); }},
    {u"WriteOperationCount", uint64, Need::io, "syscw of io", [](const Row& row) { return NumberIn(row.io, &facts::ProcessIo::writeOperations); }},
    {u"WriteTransferCount", uint64, Need::io, "bytes, wchar of io", [](const Row& row) { return NumberIn(row.io, &facts::ProcessIo::writtenBytes); }},
};
// clang-format on

std::optional<std::uint32_t> ProcessIdOf(const CimValue& value) {
    std::optional<std::uint64_t> id;
    if (const auto* number = std::get_if<std::int64_t>(&value.held); number != nullptr && *number >= 0) {
        id = static_cast<std::uint64_t>(*number);
    } else if (const auto* text = std::get_if<std::u16string>(&value.held); text != nullptr) {
        id = facts::NumberOf(platform::Utf8FromWide(*text));
    }
    return id && *id <= UINT32_MAX ? std::optional(static_cast<std::uint32_t>(*id)) : std::nullopt;
}

/// The ids of processes that can match, ascending: those that WHERE names, else all.
std::vector<std::uint32_t> ProcessesToRead(const Gathering& gathering, const std::string& folder) {
    const std::vector<CimValue>* values = gathering.valuesOf(u"ProcessId");
    if (values == nullptr) values = gathering.valuesOf(u"Handle");
    if (values == nullptr) return facts::ListProcessIds(folder);
    std::vector<std::uint32_t> ids;
    for (const CimValue& value : *values) {
        if (const std::optional<std::uint32_t> id = ProcessIdOf(value)) ids.push_back(*id);
    }
    std::sort(ids.begin(), ids.end());
    ids.erase(std::unique(ids.begin(), ids.end()), ids.end());
    return ids;
}

/// False if there is no such process, or it has ended.
bool ReadStat(facts::ProcessFiles& files, std::uint32_t id, facts::ProcessStat& stat) {
    const std::optional<std::string_view> text = files.Read(id, "stat");
    std::optional<facts::ProcessStat> parsed = text ? facts::ParseProcessStat(*text) : std::nullopt;
    if (!parsed || !parsed->isProcess) return false;
    stat = std::move(*parsed);
    return true;
}

std::optional<facts::ProcessMemory> ReadMemory(facts::ProcessFiles& files, std::uint32_t id) {
    const std::optional<std::string_view> text = files.Read(id, "status");
    if (!text) return std::nullopt;
    return facts::ParseProcessStatus(*text);
}

/// Reads what the process's stat does not tell. A part that cannot be read stays empty; false if that is because this
/// user may not read it.
bool ReadParts(facts::ProcessFiles& files, const Gathering& gathering, Row& row) {
    const std::uint32_t id = row.stat.id;
    bool mayRead = true;
    const auto take = [&](std::uint32_t need, auto& part, const auto& read) {
        if (!gathering.asksFor(need)) return;
        part = read();
        if (!part && files.wasRefused()) mayRead = false;
    };
    row.arguments.clear();
    if (gathering.asksFor(Need::commandLine) || (gathering.asksFor(Need::name) && facts::MayBeCut(row.stat))) {
        row.arguments = files.Read(id, "cmdline").value_or("");
    }
    take(Need::executable, row.executable, [&] { return files.ReadExecutablePath(id); });
    take(Need::memory, row.memory, [&] { return ReadMemory(files, id); });
    take(Need::io, row.io, [&] { return facts::ParseProcessIo(files.Read(id, "io").value_or("")); });
    take(Need::handles, row.handles, [&] { return files.CountOpenFiles(id); });
    return mayRead;
}

void ReadSystem(Row& row) {
    utsname kernel{};
    uname(&kernel);
    row.systemVersion = kernel.release;
    row.systemName = facts::SystemNameOf(facts::ReadOsRelease(), kernel);
}

constexpr ClassInfo classes[] = {
    {u"Win32_Process", u"CIM_Process", properties,
     [](const Gathering& gathering) { return GatherProcesses(gathering, "/proc"); }, u"Handle",
     "processes: command line, memory, processor time"},
};

const ClassFamily family([] { return std::span<const ClassInfo>(classes); });

}  // namespace

void UnseenProcesses::See(std::uint32_t id, bool areAllPartsSeen) {
    isAnySeen_ = true;
    isFirstSeen_ = isFirstSeen_ || id == firstProcess;
    if (!areAllPartsSeen) ++withoutParts_;
}

void UnseenProcesses::Miss(bool isRefused) {
    isAnyMissed_ = true;
    if (isRefused) ++refused_;
}

bool UnseenProcesses::areOthersHidden(facts::ProcessFiles& files) const {
    const bool mayBeMissing = !isFirstSeen_ && (!areNamed_ || isAnyMissed_);
    return mayBeMissing && !files.Read(firstProcess, "stat");
}

void UnseenProcesses::Tell(facts::ProcessFiles& files, const Gathering& gathering) const {
    if (areOthersHidden(files)) gathering.notice("Processes of other users were left out: /proc does not show them");
    if (refused_ > 0)
        gathering.notice(fmt::format("{} processes were left out: this user may not read them", refused_));
    if (withoutParts_ > 0)
        gathering.notice(
            fmt::format("Files or figures of {} processes were left out: this user may not read them", withoutParts_));
}

WmiStatus GatherProcesses(const Gathering& gathering, const std::string& folder) {
    facts::ProcessFiles files(folder);
    Row row;
    if (gathering.asksFor(Need::host)) row.host = facts::HostName();
    if (gathering.asksFor(Need::systemStart)) row.systemStart = facts::SystemStartMilliseconds();
    if (gathering.asksFor(Need::system)) ReadSystem(row);
    UnseenProcesses unseen(gathering.valuesOf(u"ProcessId") != nullptr || gathering.valuesOf(u"Handle") != nullptr);
    for (const std::uint32_t id : ProcessesToRead(gathering, folder)) {
        if (!ReadStat(files, id, row.stat)) {
            unseen.Miss(files.wasRefused());
            continue;
        }
        unseen.See(id, ReadParts(files, gathering, row));
        if (!gathering.row(&row)) return wmi_status::ok;
    }
    unseen.Tell(files, gathering);
    // If /proc does not even show this process, finding no others says nothing.
    return unseen.isAnySeen() || files.Read(static_cast<std::uint32_t>(getpid()), "stat") ? wmi_status::ok
                                                                                          : wmi_status::providerFailure;
}

}  // namespace kv::wql

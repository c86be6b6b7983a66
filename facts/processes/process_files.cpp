#include "facts/processes/process_files.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <charconv>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <dirent.h>
#include <fcntl.h>
#include <memory>
#include <sys/stat.h>
#include <unistd.h>

#include "facts/system_text.h"
#include "platform/owned_handle.h"

namespace kv::facts {

namespace {

constexpr std::size_t firstRead = 4096;
constexpr std::size_t maxFileBytes = 256 * firstRead;
constexpr std::size_t maxCommandLine = 32767;
constexpr std::size_t cutNameLength = 15;

// Fields of /proc/<id>/stat by their numbers in proc(5); numbers begin with the fourth.
enum StatField : std::size_t {
    parent = 4,
    session = 6,
    minorFault = 10,
    majorFault = 12,
    userTime = 14,
    systemTime = 15,
    priority = 18,
    niceValue = 19,
    threadCount = 20,
    startTime = 22,
    virtualSize = 23,
    resident = 24,
    exitSignal = 38,
};

using StatNumbers = std::array<std::uint64_t, StatField::exitSignal + 1>;

/// Takes a blank and a number off a line; a negative number gives its two's complement.
bool TakeNumber(std::string_view& line, std::uint64_t& number) {
    if (line.size() < 2 || line.front() != ' ') return false;
    const char* const begin = line.data() + 1;
    const char* const end = line.data() + line.size();
    std::from_chars_result result{};
    if (*begin == '-') {
        std::int64_t negative = 0;
        result = std::from_chars(begin, end, negative);
        number = static_cast<std::uint64_t>(negative);
    } else {
        result = std::from_chars(begin, end, number);
    }
    line.remove_prefix(static_cast<std::size_t>(result.ptr - line.data()));
    return result.ec == std::errc();
}

bool TakeNumbers(std::string_view line, StatNumbers& numbers) {
    for (std::size_t field = StatField::parent; field <= StatField::exitSignal; ++field) {
        if (!TakeNumber(line, numbers[field])) return false;
    }
    return true;
}

void SetNumbers(const StatNumbers& numbers, ProcessStat& stat) {
    stat.parentId = static_cast<std::uint32_t>(numbers[StatField::parent]);
    stat.sessionId = static_cast<std::uint32_t>(numbers[StatField::session]);
    stat.minorFaults = numbers[StatField::minorFault];
    stat.majorFaults = numbers[StatField::majorFault];
    stat.userTicks = numbers[StatField::userTime];
    stat.kernelTicks = numbers[StatField::systemTime];
    stat.priority = static_cast<std::int64_t>(numbers[StatField::priority]);
    stat.nice = static_cast<std::int64_t>(numbers[StatField::niceValue]);
    stat.threads = numbers[StatField::threadCount];
    stat.startTicks = numbers[StatField::startTime];
    stat.virtualBytes = numbers[StatField::virtualSize];
    stat.residentPages = numbers[StatField::resident];
    stat.isProcess = static_cast<std::int64_t>(numbers[StatField::exitSignal]) >= 0;  // a thread's end signals no one
}

/// The number after a key such as "VmPeak:" at the start of a line.
std::optional<std::uint64_t> NumberAfter(std::string_view line, std::string_view key) {
    if (!line.starts_with(key)) return std::nullopt;
    line.remove_prefix(key.size());
    return NumberOf(TakeField(line));
}

/// "<id>/<file>", relative to /proc.
struct ProcessPath {
    std::array<char, 64> text{};

    ProcessPath(std::uint32_t id, std::string_view file) {
        char* at = std::to_chars(text.begin(), text.end(), id).ptr;
        *at++ = '/';
        std::copy_n(file.begin(), std::min<std::size_t>(file.size(), static_cast<std::size_t>(text.end() - at) - 1),
                    at);
    }
};

using Directory = std::unique_ptr<DIR, platform::ReleasedBy<closedir>>;

}  // namespace

std::optional<ProcessStat> ParseProcessStat(std::string_view text) {
    const std::size_t open = text.find(" (");
    const std::size_t close = text.rfind(") ");
    if (open == std::string_view::npos || close == std::string_view::npos || close < open + 2 ||
        close + 3 > text.size())
        return std::nullopt;
    const std::optional<std::uint64_t> id = NumberOf(text.substr(0, open));
    StatNumbers numbers{};
    if (!id || *id > UINT32_MAX || !TakeNumbers(text.substr(close + 3), numbers)) return std::nullopt;
    ProcessStat stat;
    stat.id = static_cast<std::uint32_t>(*id);
    stat.name = text.substr(open + 2, close - open - 2);
    stat.state = text[close + 2];
    SetNumbers(numbers, stat);
    return stat;
}

std::optional<ProcessIo> ParseProcessIo(std::string_view text) {
    ProcessIo io;
    const struct {
        std::string_view key;
        std::uint64_t& number;
    } keys[] = {
        {"rchar:", io.readBytes},
        {"wchar:", io.writtenBytes},
        {"syscr:", io.readOperations},
        {"syscw:", io.writeOperations},
    };
    std::size_t found = 0;
    for (std::string_view line; TakeLine(text, line);) {
        for (const auto& key : keys) {
            const std::optional<std::uint64_t> number = NumberAfter(line, key.key);
            if (!number) continue;
            key.number = *number;
            ++found;
        }
    }
    if (found != std::size(keys)) return std::nullopt;
    return io;
}

ProcessMemory ParseProcessStatus(std::string_view text) {
    constexpr std::uint64_t bytesPerUnit = 1024;
    ProcessMemory memory;
    const struct {
        std::string_view key;
        std::uint64_t& bytes;
    } keys[] = {
        {"VmPeak:", memory.peakVirtual},
        {"VmHWM:", memory.peakResident},
        {"RssAnon:", memory.anonymous},
        {"VmSwap:", memory.swapped},
    };
    for (std::string_view line; TakeLine(text, line);) {
        for (const auto& key : keys) {
            if (const auto number = NumberAfter(line, key.key)) key.bytes = *number * bytesPerUnit;
        }
    }
    return memory;
}

std::string CommandLineOf(std::string_view text) {
    while (!text.empty() && text.back() == '\0') text.remove_suffix(1);
    std::string line(text.substr(0, maxCommandLine));
    std::replace(line.begin(), line.end(), '\0', ' ');
    return line;
}

bool MayBeCut(const ProcessStat& stat) { return stat.name.size() == cutNameLength; }

std::string_view ExecutableNameOf(const ProcessStat& stat, std::string_view commandLine) {
    if (!MayBeCut(stat)) return stat.name;
    constexpr int places = 3;  // an interpreter, an option, a script
    for (int place = 0; place < places; ++place) {
        std::string_view file = commandLine.substr(0, commandLine.find('\0'));
        commandLine.remove_prefix(std::min(file.size() + 1, commandLine.size()));
        file.remove_prefix(file.rfind('/') + 1);  // npos + 1 is 0
        if (!file.starts_with(stat.name)) continue;
        return file.substr(0,
                           file.find_first_of(" :", cutNameLength));  // the program may have set a title in its place
    }
    return stat.name;
}

std::uint32_t BasePriorityOf(const ProcessStat& stat) {
    constexpr std::uint32_t realTime = 24;
    constexpr std::uint32_t high = 13;
    constexpr std::uint32_t aboveNormal = 10;
    constexpr std::uint32_t normal = 8;
    constexpr std::uint32_t belowNormal = 6;
    constexpr std::uint32_t idle = 4;
    constexpr std::int64_t farFromNormal = 10;
    if (stat.priority < 0) return realTime;
    if (stat.nice < 0) return stat.nice < -farFromNormal ? high : aboveNormal;
    if (stat.nice > 0) return stat.nice > farFromNormal ? idle : belowNormal;
    return normal;
}

ProcessFiles::ProcessFiles(const std::string& folder)
    : folder_(folder), directory_(open(folder.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC)), buffer_(firstRead, '\0') {}

/// Called where a call of the system has just failed.
std::nullopt_t ProcessFiles::Nothing() {
    wasRefused_ = errno == EACCES || errno == EPERM;
    return std::nullopt;
}

std::optional<std::string_view> ProcessFiles::Read(std::uint32_t processId, const char* file) {
    wasRefused_ = false;
    const ProcessPath path(processId, file);
    const platform::Descriptor opened(openat(directory_.get(), path.text.data(), O_RDONLY | O_CLOEXEC));
    if (!opened) return Nothing();
    std::size_t length = 0;
    ssize_t got = 0;
    for (;;) {
        got = platform::ReadOnce(opened.get(), buffer_.data() + length, buffer_.size() - length);
        if (got > 0) length += static_cast<std::size_t>(got);
        if (got < 0 || length < buffer_.size() || length >= maxFileBytes) break;  // a read is short only at the end
        buffer_.resize(buffer_.size() * 2);
    }
    if (got < 0) return Nothing();
    return std::string_view(buffer_.data(), length);
}

std::optional<std::string> ProcessFiles::ReadExecutablePath(std::uint32_t processId) {
    constexpr std::string_view deletedMark = " (deleted)";
    wasRefused_ = false;
    const ProcessPath link(processId, "exe");
    const ssize_t length = readlinkat(directory_.get(), link.text.data(), buffer_.data(), buffer_.size());
    if (length <= 0) return Nothing();
    std::string_view path(buffer_.data(), static_cast<std::size_t>(length));
    if (path.ends_with(deletedMark)) path.remove_suffix(deletedMark.size());
    return std::string(path);
}

std::optional<std::uint64_t> ProcessFiles::CountOpenFiles(std::uint32_t processId) {
    wasRefused_ = false;
    const ProcessPath path(processId, "fd");
    struct stat facts {};
    if (fstatat(directory_.get(), path.text.data(), &facts, 0) != 0) return Nothing();
    if (facts.st_size > 0) return static_cast<std::uint64_t>(facts.st_size);  // the count, on newer kernels
    const Directory directory(opendir((folder_ + "/" + path.text.data()).c_str()));
    if (!directory) {
        Nothing();
        // A kernel that counts this process's files has counted 0 of the other's.
        const bool isCount = wasRefused_ && fstatat(directory_.get(), "self/fd", &facts, 0) == 0 && facts.st_size > 0;
        wasRefused_ = wasRefused_ && !isCount;
        return isCount ? std::optional<std::uint64_t>(0) : std::nullopt;
    }
    std::uint64_t count = 0;
    while (const dirent* entry = readdir(directory.get())) {
        if (entry->d_name[0] != '.') ++count;
    }
    return count;
}

std::vector<std::uint32_t> ListProcessIds(const std::string& folder) {
    std::vector<std::uint32_t> ids;
    const Directory directory(opendir(folder.c_str()));
    if (!directory) return ids;
    while (const dirent* entry = readdir(directory.get())) {
        const std::optional<std::uint64_t> id = NumberOf(entry->d_name);
        if (id && *id <= UINT32_MAX) ids.push_back(static_cast<std::uint32_t>(*id));
    }
    std::sort(ids.begin(), ids.end());
    return ids;
}

std::optional<std::uint64_t> CountProcesses(const std::string& folder) {
    constexpr std::uint32_t firstProcess = 1;
    const std::vector<std::uint32_t> ids = ListProcessIds(folder);
    if (ids.empty() || ids.front() != firstProcess) return std::nullopt;
    return ids.size();
}

std::uint64_t ClockTicksPerSecond() {
    static const auto ticks = static_cast<std::uint64_t>(sysconf(_SC_CLK_TCK));
    return ticks;
}

std::uint64_t TimeOfTicks(std::uint64_t ticks) {
    constexpr std::uint64_t unitsPerSecond = 10'000'000;
    return ticks * (unitsPerSecond / ClockTicksPerSecond());
}

std::uint64_t PageSize() {
    static const auto size = static_cast<std::uint64_t>(sysconf(_SC_PAGESIZE));
    return size;
}

std::int64_t SystemStartMilliseconds() {
    constexpr std::int64_t sameStart =
        500;  // gradual corrections of the clock stay below it, setting the clock does not
    static std::atomic<std::int64_t> known = 0;
    const auto read = [](clockid_t clock) {
        timespec now{};
        clock_gettime(clock, &now);
        return static_cast<std::int64_t>(now.tv_sec) * 1000 + now.tv_nsec / 1'000'000;
    };
    const std::int64_t start = read(CLOCK_REALTIME) - read(CLOCK_BOOTTIME);
    const std::int64_t before = known;
    if (before != 0 && std::abs(start - before) < sameStart) return before;
    known = start;
    return start;
}

}  // namespace kv::facts

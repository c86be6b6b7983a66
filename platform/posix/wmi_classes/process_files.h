// What /proc tells of processes (proc(5)): fetching is one line at the caller, taking apart is here.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace platform::wmi {

/// /proc/<id>/stat. Times are in ticks of ClockTicksPerSecond, memory in the units named.
struct ProcessStat {
    std::uint32_t id = 0;
    std::string name;  // of the executable, cut by the kernel to 15 bytes; may hold anything
    char state = '?';
    std::uint32_t parentId = 0;
    std::uint32_t sessionId = 0;
    std::uint64_t minorFaults = 0;
    std::uint64_t majorFaults = 0;
    std::uint64_t userTicks = 0;
    std::uint64_t kernelTicks = 0;
    std::int64_t priority = 0;
    std::int64_t nice = 0;
    std::uint64_t threads = 0;
    std::uint64_t startTicks = 0;  // since the system's start
    std::uint64_t virtualBytes = 0;
    std::uint64_t residentPages = 0;
};

/// None for a text that is none of this form.
std::optional<ProcessStat> ParseProcessStat(std::string_view text);

/// /proc/<id>/io: readable only for one's own processes, or for all by the superuser.
struct ProcessIo {
    std::uint64_t readBytes = 0;        // rchar
    std::uint64_t writtenBytes = 0;     // wchar
    std::uint64_t readOperations = 0;   // syscr
    std::uint64_t writeOperations = 0;  // syscw
};

std::optional<ProcessIo> ParseProcessIo(std::string_view text);

/// Ids of all processes, ascending.
std::vector<std::uint32_t> ListProcessIds();

/// Files that a process holds open; none when it is gone or not one's own.
std::optional<std::uint64_t> CountOpenFiles(std::uint32_t processId);

std::uint64_t ClockTicksPerSecond();
std::uint64_t PageSize();  // bytes

/// When the system was started, in milliseconds since 1970: the wall clock less the time since (CLOCK_BOOTTIME).
std::int64_t SystemStartMilliseconds();

}  // namespace platform::wmi

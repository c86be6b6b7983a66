// What /proc tells about processes (proc(5)). One routine reads any of the files, and each file has a routine that
// parses it. The parsers may run on any thread.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/linux/descriptor.h"

namespace kv::facts {

/// /proc/<id>/stat. Times are in ticks of ClockTicksPerSecond, memory in the units named.
struct ProcessStat {
    std::uint32_t id = 0;
    std::string name;  // of the executable, cut by the kernel to 15 bytes, or a kernel thread's whole name; may hold
                       // any bytes
    char state = '?';
    std::uint32_t parentId = 0;
    std::uint32_t sessionId = 0;
    std::uint64_t minorFaults = 0;
    std::uint64_t majorFaults = 0;
    std::uint64_t userTicks = 0;
    std::uint64_t kernelTicks = 0;
    std::int64_t priority = 0;  // below 0: real time
    std::int64_t nice = 0;
    std::uint64_t threads = 0;
    std::uint64_t startTicks = 0;  // since the system's start
    std::uint64_t virtualBytes = 0;
    std::uint64_t residentPages = 0;
    bool isProcess = true;  // false for a further thread of a process, which /proc holds too but does not list
};

/// Absent when the text has another form.
std::optional<ProcessStat> ParseProcessStat(std::string_view text);

/// /proc/<id>/io. Users may read it of their own processes, the superuser of all.
struct ProcessIo {
    std::uint64_t readBytes = 0;        // rchar
    std::uint64_t writtenBytes = 0;     // wchar
    std::uint64_t readOperations = 0;   // syscr
    std::uint64_t writeOperations = 0;  // syscw
};

/// Absent when one of the four is missing.
std::optional<ProcessIo> ParseProcessIo(std::string_view text);

/// The memory lines of /proc/<id>/status, in bytes; 0 for a line that is missing, as it is for kernel threads.
struct ProcessMemory {
    std::uint64_t peakVirtual = 0;   // VmPeak
    std::uint64_t peakResident = 0;  // VmHWM
    std::uint64_t anonymous = 0;     // RssAnon: resident, and not part of a file
    std::uint64_t swapped = 0;       // VmSwap
};

ProcessMemory ParseProcessStatus(std::string_view text);

/// /proc/<id>/cmdline as one line, the arguments separated by blanks. Cut to 32767 bytes, the most that a command line
/// may have on Windows.
std::string CommandLineOf(std::string_view text);

/// The name of a process's executable: the kernel's, unless that may be cut and the command line (as /proc/<id>/cmdline
/// has it) holds the whole name. A script's name is looked for after its interpreter and one option. The result refers
/// to the arguments.
std::string_view ExecutableNameOf(const ProcessStat& stat, std::string_view commandLine);

/// Whether a name may be cut, so that the command line is worth a look.
bool MayBeCut(const ProcessStat& stat);

/// The base priority that Windows would give: 24 real time, 13 high, 10 above normal, 8 normal, 6 below normal, 4 idle.
std::uint32_t BasePriorityOf(const ProcessStat& stat);

/// Reads the files of one process after the other; a short file costs one open, one read and one close. One thread at a
/// time may use it.
class ProcessFiles {
  public:
    explicit ProcessFiles(const std::string& folder = "/proc");

    /// A file such as "stat", at most 1 MB of it; absent when the process is gone, or may not be read. The text is
    /// valid until the next call.
    std::optional<std::string_view> Read(std::uint32_t processId, const char* file);

    /// The path of the file that a process runs, even if the file has since been deleted or replaced; absent as above,
    /// and for kernel threads.
    std::optional<std::string> ReadExecutablePath(std::uint32_t processId);

    /// The number of files that a process holds open; absent as above.
    std::optional<std::uint64_t> CountOpenFiles(std::uint32_t processId);

    /// Whether the last of these gave nothing because this user may not read it.
    bool wasRefused() const { return wasRefused_; }

  private:
    std::nullopt_t Nothing();

    std::string folder_;
    platform::Descriptor directory_;
    std::string buffer_;
    bool wasRefused_ = false;
};

/// Ids of all processes, ascending; empty when /proc cannot be read.
std::vector<std::uint32_t> ListProcessIds(const std::string& folder = "/proc");

/// How many processes there are; absent when /proc cannot be read, or shows only a user's own (hidepid): the first
/// process, which is always there, is missing.
std::optional<std::uint64_t> CountProcesses(const std::string& folder = "/proc");

std::uint64_t ClockTicksPerSecond();
std::uint64_t TimeOfTicks(std::uint64_t ticks);  // in units of 100 ns
std::uint64_t PageSize();                        // bytes

/// When the system was started, in milliseconds since 1970: the wall clock minus the time since then (CLOCK_BOOTTIME).
/// Stays the same from call to call until the clock is set. Any thread may ask.
std::int64_t SystemStartMilliseconds();

}  // namespace kv::facts

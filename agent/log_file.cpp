#include "agent/log_file.h"

#include <algorithm>
#include <limits>
#include <mutex>
#include <utility>

#include "foundation/agent_state.h"
#include "foundation/log.h"
#include "foundation/open_file.h"
#include "foundation/registry_store.h"
#include "foundation/resource_lock.h"
#include "platform/files.h"

// RotateLogFile and all that it calls log nothing while the rotation lock is held: a line may start a rotation, and
// that one would wait for the lock for ever.
namespace kv {

namespace {

using platform::Files;
namespace error = platform::error;

constexpr std::uint32_t defaultMaxSize = 1000000;  // characters
constexpr std::uint32_t defaultMaxFiles = 10;
constexpr std::u16string_view logExtension = u".log";

/// What becomes of the rotation lock when RotateLogFile returns.
enum class RotationLock { released, kept };

std::u16string_view StemOf(std::u16string_view path) { return path.substr(0, path.find(logExtension)); }

/// The size of the log on the disk, made when missing; 4 GB and more count as just under 4 GB. Whoever else has the log
/// open, to look at it or as another process of the agent's, does not keep it from being measured.
platform::Error MeasureLog(std::uint32_t& size) {
    platform::FileHandle file = 0;
    platform::Error result =
        Files().CreateFileW(logState.gv_logPath, platform::FileAccess::readWrite, platform::FileShare::readWrite,
                            platform::FileDisposition::openAlways, file);
    if (result != error::success) return result;
    std::uint64_t bytes = 0;
    result = Files().GetFileSizeEx(file, bytes);
    Files().CloseHandle(file);
    size = static_cast<std::uint32_t>(std::min<std::uint64_t>(bytes, std::numeric_limits<std::uint32_t>::max()));
    return result;
}

/// False where the log in place is not to be moved away or opened anew.
bool MayChangeLog() { return !logState.isToolkitLog && !logState.isRotationOver; }

/// Called with streamMutex held, as OpenStream is.
void CloseStream() {
    if (const platform::FileHandle file = std::exchange(logState.gv_logFile, 0)) Files().CloseHandle(file);
}

int OpenStream(std::u16string_view path) {
    CloseStream();
    const platform::Error result =
        Files().CreateFileW(path, platform::FileAccess::append, platform::FileShare::readWrite,
                            platform::FileDisposition::openAlways, logState.gv_logFile);
    logState.gv_logOpenFailed = result == error::success ? 0 : 1;
    return result == error::notEnoughMemory ? 99 : 1;
}

/// Moves the current log away and opens a new one; lines wait that long, so that none of them is lost.
void StartNewLog(std::u16string_view target) {
    const std::lock_guard stream(logState.streamMutex);
    if (!MayChangeLog()) return;
    CloseStream();
    Files().MoveFileExW(logState.gv_logPath, target, false);
    OpenStream(logState.gv_logPath);
}

/// Moves the current log and its numbered elders one number up, from the oldest down, and drops those past the limit.
/// A failed delete or rename leaves a gap in the numbers and nothing else.
void ShiftLogFiles() {
    const std::u16string_view path = logState.gv_logPath;
    const std::uint32_t maxFiles = logState.gv_logMaxFiles;
    for (int n = CountLogFiles(StemOf(path)); n >= 1; --n) {
        const auto number = static_cast<std::uint32_t>(n);
        const std::u16string target = LogFileNameAt(path, number);
        if (number >= maxFiles) Files().DeleteFileW(target);
        if (number > maxFiles) continue;
        if (number == 1)
            StartNewLog(target);
        else
            Files().MoveFileExW(LogFileNameAt(path, number - 1), target, false);
    }
}

RotationLock RotateWhileLocked(std::uint32_t count) {
    const std::uint32_t bytes = logState.gv_logBytes;
    const std::uint32_t maxSize = logState.gv_logMaxSize;
    // Another thread has rotated in the meantime. The lock stays held here and where the log cannot be measured, unlike
    // on the normal way out: this is how the agent behaves, and its price is that the next rotation waits for ever.
    if (bytes != 0 && maxSize != 0 && bytes < maxSize) return RotationLock::kept;
    if (logState.gv_logPath.empty()) return RotationLock::released;
    if (!MayChangeLog()) {
        logState.gv_logBytes = 0;
        return RotationLock::released;
    }
    if (count == 0) {
        if (MeasureLog(count) != error::success) return RotationLock::kept;
        logState.gv_logBytes = count;
    }
    if (count > maxSize) {
        ShiftLogFiles();
        logState.gv_logBytes = 0;
    }
    const std::lock_guard stream(logState.streamMutex);
    if (logState.gv_logFile == 0 && MayChangeLog()) OpenStream(logState.gv_logPath);
    return RotationLock::released;
}

}  // namespace

int RotateLogFile(std::uint32_t count) {
    if (logState.isRotationOver) return 0;  // without waiting
    SynchronizeResource_MSP(&logState.gv_logFile);
    RotationLock lock = RotationLock::released;
    try {
        lock = RotateWhileLocked(count);
    } catch (...) {
        // The rotation is tried again at the next line.
    }
    if (lock == RotationLock::released) UnsynchronizeResource_MSP(&logState.gv_logFile);
    return 0;
}

int OpenLogFile(std::u16string_view path) {
    const std::lock_guard stream(logState.streamMutex);
    return OpenStream(path);
}

int CountLogFiles(std::u16string_view stem) {
    FileSearch search(std::u16string(stem) + u"*.*");
    if (!search.HasFile()) return -1;
    int count = 0;
    for (; search.HasFile(); search.Next()) ++count;
    return count;
}

std::u16string LogFileNameAt(std::u16string_view path, std::uint32_t number) {
    return std::u16string(StemOf(path)) + DecimalText(number) + std::u16string(logExtension);
}

void ReadLogLevel() {
    std::uint32_t level = 1;
    if (GetAgentLogLevel(level) != error::success) level = 1;
    logState.gv_logLevel = level;
}

void RotateLogger(std::optional<std::u16string_view> name) {
    ReadLogLevel();
    const std::u16string binPath = agentState.gv_ocAgentBinPath.value_or(u"");
    Files().wmkdir(binPath + u"..\\logs");
    logState.gv_logBytes = 0;
    logState.gv_logMaxFiles = defaultMaxFiles;
    logState.gv_logMaxSize = defaultMaxSize;
    logState.gv_logPath = binPath + std::u16string(name.value_or(u"..\\logs\\agent.log"));
    logState.rotate = RotateLogFile;
    logState.isToolkitLog = false;
    logState.isRotationOver = false;
    RotateLogFile(0);
    // The configured limits hold from here on; the rotation at start goes by the defaults.
    std::uint32_t maxSize = defaultMaxSize;
    std::uint32_t maxFiles = defaultMaxFiles;
    GetLoggerMaxSize(maxSize);
    GetLoggerMaxFiles(maxFiles);
    logState.gv_logMaxSize = maxSize;
    logState.gv_logMaxFiles = maxFiles;
    Log1(
        "==================================================STARTING MONITORING "
        "AGENT==================================================\n");
    Log1("\tRotateLogger : LoggerMaxFiles %d\n", maxFiles);
    Log1("\tRotateLogger : LoggerMaxSize %ld bytes .\n", maxSize);
}

void EndLogRotation() { logState.isRotationOver = true; }

void StopLogging() {
    EndLogRotation();
    const std::lock_guard stream(logState.streamMutex);
    if (logState.gv_logFile == 0) return;
    try {
        // Not by the log step, after which other lines could follow.
        const std::string line = PrefixLogFormat(
            "=============================================LOGGING "
            "STOPPED==============================================\n");
        if (LogsAtLeast(1)) Files().WriteText(logState.gv_logFile, line);
    } catch (...) {
        // Without memory this line is lost, as any other.
    }
    CloseStream();
}

}  // namespace kv

#include "agent/log_file.h"

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <limits>
#include <mutex>
#include <utility>

#include "agent/bin_directory.h"
#include "foundation/agent_state.h"
#include "foundation/file_utils.h"
#include "foundation/host_utils.h"
#include "foundation/log.h"
#include "foundation/open_file.h"
#include "foundation/registry_store.h"
#include "foundation/resource_lock.h"
#include "foundation/version.h"
#include "platform/files.h"
#include "platform/messages.h"
#include "platform/utf.h"

// RotateLogFile and all that it calls log nothing while the rotation lock is held: a line may start a rotation, and
// that one would wait for the lock forever.
namespace kv {

namespace {

using platform::Files;
namespace error = platform::error;

constexpr std::u16string_view logExtension = u".log";

/// Set while a thread takes the step "above the limit? rotate". The others go on once their lines are written, so that
/// nobody waits for a rotation and then finds a small counter.
std::atomic_flag isRotating;

/// Another process writes to the log, as it did when this one began: only that one may move it away.
std::atomic<bool> isGuest{false};  // changed while isRotating
bool isObstacleSaid = false;       // guarded by isRotating
bool isLossSaid = false;           // likewise

class ClearedAtEnd {
  public:
    explicit ClearedAtEnd(std::atomic_flag& flag) : flag_(flag) {}
    ~ClearedAtEnd() { flag_.clear(std::memory_order_release); }
    ClearedAtEnd(const ClearedAtEnd&) = delete;
    ClearedAtEnd& operator=(const ClearedAtEnd&) = delete;

  private:
    std::atomic_flag& flag_;
};

/// What becomes of the rotation lock when RotateLogFile returns.
enum class RotationLock { released, kept };

std::u16string_view LogStem(std::u16string_view path) { return path.substr(0, path.find(logExtension)); }

/// The size of the log on the disk, which is made when it is missing; 4 GB and more count as just under 4 GB. It is
/// measured even while someone else has it open, to look at it or to write to it.
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

/// False when the log in place must not be moved away or opened again.
bool MayChangeLog() { return !logState.isToolkitLog && !logState.isRotationOver; }

/// Called, like OpenStream, with streamMutex held.
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

void MakeLogDirectory() { Files().wmkdir(agentState.gv_ocAgentBinPath.value_or(u"") + u"..\\logs"); }

/// Moves the current log away and opens a new one. Lines wait meanwhile, so that none is lost.
void StartNewLog(std::u16string_view target) {
    const std::lock_guard stream(logState.streamMutex);
    if (!MayChangeLog()) return;
    CloseStream();
    Files().MoveFileExW(logState.gv_logPath, target, platform::MoveTarget::mustBeNew);
    OpenStream(logState.gv_logPath);
}

/// Moves the current log and its older, numbered ones up by one number, the oldest first, and deletes those past the
/// limit. A delete or rename that fails leaves a gap in the numbers and nothing else.
void ShiftLogFiles() {
    const std::u16string_view path = logState.gv_logPath;
    const std::uint32_t maxFiles = logState.gv_logMaxFiles;
    for (int n = CountLogFiles(LogStem(path)); n >= 1; --n) {
        const auto number = static_cast<std::uint32_t>(n);
        const std::u16string target = LogFileNameAt(path, number);
        if (number >= maxFiles) Files().DeleteFileW(target);
        if (number > maxFiles) continue;
        if (number == 1)
            StartNewLog(target);
        else
            Files().MoveFileExW(LogFileNameAt(path, number - 1), target, platform::MoveTarget::mustBeNew);
    }
}

RotationLock RotateWhileLocked(std::uint32_t count) {
    const std::uint32_t bytes = logState.gv_logBytes;
    const std::uint32_t maxSize = logState.gv_logMaxSize;
    // The counter says that another thread has rotated meanwhile. Unlike on the normal way out, the lock stays held
    // here, and when the log cannot be measured. RotateAboveLimit makes sure that no line comes here like that, and
    // that none waits for such a lock.
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

/// Whether a process other than this one writes to the log. Its own stream is closed for the question and opened again
/// by the log's name, so that it does not go on in a file that was renamed in between.
bool IsLogOfAnother() {
    const std::lock_guard stream(logState.streamMutex);
    if (!MayChangeLog()) return true;
    CloseStream();
    const bool isInUse = Files().GetFileUseState(logState.gv_logPath) == error::sharingViolation;
    OpenStream(logState.gv_logPath);
    return isInUse;
}

/// Why the log cannot be rotated now; null when it can.
const char* RotationObstacle() {
    if (isGuest) isGuest = IsLogOfAnother();
    if (isGuest) return "another process writes to the log, and rotates it";
    const bool isLeftBehind = IsResourceLocked_MSP(&logState.gv_logFile) == 1;
    return isLeftBehind ? "the lock of an earlier rotation was not released" : nullptr;
}

/// The log goes on growing; the next look comes when as much again has been written.
void GoOnUnrotated(const char* obstacle) {
    logState.gv_logBytes = 0;
    if (!std::exchange(isObstacleSaid, true))
        Log1("\t RotateLogFile :: The log goes on without rotation, because %s\n", obstacle);
}

/// Called by a line when the counter has passed the limit. Another rotation may have ended meanwhile.
int RotateAboveLimit(std::uint32_t /*count*/) {
    if (logState.isRotationOver || isRotating.test_and_set(std::memory_order_acquire)) return 0;
    const ClearedAtEnd cleared(isRotating);
    const std::uint32_t bytes = logState.gv_logBytes;
    if (bytes <= logState.gv_logMaxSize) return 0;
    const char* obstacle = RotationObstacle();
    if (!obstacle) return RotateLogFile(bytes);
    GoOnUnrotated(obstacle);
    return 0;
}

/// Nobody would find a line about it in the log.
void TellOfLostLog() {
    if (std::exchange(isLossSaid, true)) return;
    std::fprintf(
        stderr,
        "MonitoringAgent: the log %s %s; nothing is logged until it can be opened, which is tried each minute\n",
        platform::Utf8FromWide(Files().NativePath(logState.gv_logPath)).c_str(), LogFault().c_str());
}

/// Opens the log in the place of one that was lost, or could not be opened. False when that fails. Called with
/// streamMutex held.
bool OpenLostLog() {
    CloseStream();
    isGuest = Files().GetFileUseState(logState.gv_logPath) == error::sharingViolation;
    std::uint32_t size = 0;
    logState.gv_logBytes = MeasureLog(size) == error::success ? size : 0;
    OpenStream(logState.gv_logPath);
    return logState.gv_logFile != 0;
}

/// Opens the log of a start. When another process writes to it, or it cannot be measured, it is only opened: a rotation
/// would take it away from that process, or not release the lock.
void OpenLogAtStart() {
    std::uint32_t size = 0;
    isObstacleSaid = false;
    isGuest = logState.gv_logFile == 0 && Files().GetFileUseState(logState.gv_logPath) == error::sharingViolation;
    if (isGuest || MeasureLog(size) != error::success)
        OpenLogFile(logState.gv_logPath);
    else
        RotateLogFile(0);
    isLossSaid = logState.gv_logFile == 0;  // whoever started the run tells of it
}

/// The configured limits count from here on; the rotation at the start goes by the defaults.
void ReadLogLimits() {
    std::uint32_t maxSize = defaultLogMaxSize;
    std::uint32_t maxFiles = defaultLogMaxFiles;
    GetLoggerMaxSize(maxSize);
    GetLoggerMaxFiles(maxFiles);
    logState.gv_logMaxSize = maxSize;
    logState.gv_logMaxFiles = maxFiles;
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

std::string LogFault() {
    if (IsDirectory(logState.gv_logPath)) return "is a directory";
    OpenFile log;
    const platform::Error result = log.Open(logState.gv_logPath, platform::FileAccess::append,
                                            platform::FileShare::readWrite, platform::FileDisposition::openAlways);
    if (result == platform::error::success) return "could not be opened";
    return "cannot be opened: " + platform::MessageInLine(result) + " (error " + std::to_string(result) + ")";
}

void ReopenLog() {
    if (logState.isRotationOver || isRotating.test_and_set(std::memory_order_acquire)) return;
    const ClearedAtEnd cleared(isRotating);
    isGuest = IsLogOfAnother();
    std::uint32_t size = 0;
    if (!isGuest && MeasureLog(size) == error::success) logState.gv_logBytes = size;
    ReadLogLimits();
}

void ReopenDeletedLog() {
    if (logState.isRotationOver || isRotating.test_and_set(std::memory_order_acquire)) return;
    bool wasOpen = false;
    {
        const ClearedAtEnd cleared(isRotating);
        const std::lock_guard stream(logState.streamMutex);
        if (!MayChangeLog() || logState.gv_logPath.empty()) return;
        wasOpen = logState.gv_logFile != 0;
        if (wasOpen && MayExist(logState.gv_logPath)) return;
        MakeMonitoringDirectory();
        MakeLogDirectory();
        if (!OpenLostLog()) return TellOfLostLog();
        isLossSaid = false;
    }
    Log1(wasOpen ? "\t ReopenDeletedLog :: The file of the log was gone; this one goes on\n"
                 : "\t ReopenDeletedLog :: The log could not be opened before, and what happened then is not in it\n");
}

bool IsLogOfAnotherProcess() { return isGuest; }

int OpenLogFile(std::u16string_view path) {
    const std::lock_guard stream(logState.streamMutex);
    return OpenStream(path);
}

int CountLogFiles(std::u16string_view stem) {
    FileSearch search(std::u16string(stem) + u"*.*");
    if (!search.hasFile()) return -1;
    int count = 0;
    for (; search.hasFile(); search.Next()) ++count;
    return count;
}

std::u16string LogFileNameAt(std::u16string_view path, std::uint32_t number) {
    return std::u16string(LogStem(path)) + DecimalText(number) + std::u16string(logExtension);
}

void ReadLogLevel() {
    std::uint32_t level = 1;
    if (GetAgentLogLevel(level) != error::success) level = 1;
    logState.gv_logLevel = level;
}

void RotateLogger(std::optional<std::u16string_view> name) {
    ReadLogLevel();
    const std::u16string binPath = agentState.gv_ocAgentBinPath.value_or(u"");
    MakeLogDirectory();
    logState.gv_logBytes = 0;
    logState.gv_logMaxFiles = defaultLogMaxFiles;
    logState.gv_logMaxSize = defaultLogMaxSize;
    logState.gv_logPath = binPath + std::u16string(name.value_or(u"..\\logs\\agent.log"));
    logState.rotate = RotateAboveLimit;
    logState.isToolkitLog = false;
    logState.isRotationOver = false;
    OpenLogAtStart();
    ReadLogLimits();
    Log1(
        "==================================================STARTING MONITORING "
        "AGENT==================================================\n");
    Log1("\tRotateLogger : Monitoring agent version %s on %s\n", programVersion, GetOSName());
    Log1("\tRotateLogger : LoggerMaxFiles %d\n", logState.gv_logMaxFiles.load());
    Log1("\tRotateLogger : LoggerMaxSize %ld bytes .\n", logState.gv_logMaxSize.load());
    if (isGuest) Log1("\t RotateLogger :: Another process writes to the log and rotates it. This one only writes\n");
}

void EndLogRotation() { logState.isRotationOver = true; }

void StopLogging() {
    EndLogRotation();
    const std::lock_guard stream(logState.streamMutex);
    if (logState.gv_logFile == 0) return;
    try {
        // Not through Log1, after which other lines could follow.
        const std::string line = PrefixLogFormat(
            "=============================================LOGGING "
            "STOPPED==============================================\n");
        if (LogsAtLeast(1)) Files().WriteText(logState.gv_logFile, line);
    } catch (...) {
        // Without memory this line is lost like any other.
    }
    CloseStream();
}

}  // namespace kv

#include "snmp/toolkit_log.h"

#include <cstdio>
#include <mutex>
#include <string>
#include <utility>

#include "platform/files.h"
#include "platform/utf.h"

namespace kv::snmp {

std::atomic<std::int32_t> toolkitLogLevel{0};

namespace {

constexpr std::uint64_t maxLogSize = 5'242'879;  // bytes

std::u16string ownLogPath;  // guarded by streamMutex; empty while the agent's log is in place

/// The path of a log from the working directory, which is that of the agent's program.
std::u16string ToolkitLogPath(std::string_view name) {
    const std::string_view base = name.find(':') == name.npos ? "..\\" : "";
    return platform::WideFromUtf8(std::string(base).append(name));
}

/// Begins the engine's log again, empty; called with streamMutex held. The engine's former file is closed first. The
/// agent's file is not closed, and stays in place when the engine's cannot be opened. After EndLogRotation no log is
/// begun.
bool BeginOwnLog(const std::u16string& path) {
    if (logState.isRotationOver) return false;
    if (logState.isToolkitLog) {
        const platform::FileHandle former = std::exchange(logState.gv_logFile, 0);
        if (former != 0) platform::Files().CloseHandle(former);
    }
    platform::FileHandle file = 0;
    const platform::Error result = platform::Files().CreateFileW(
        path, platform::FileAccess::write, platform::FileShare::read, platform::FileDisposition::createAlways, file);
    logState.gv_logOpenFailed = result == platform::error::success ? 0 : 1;
    if (result != platform::error::success) return false;
    logState.gv_logFile = file;
    ownLogPath = path;
    logState.makeToolkitRoom = CheckToolkitLogSize;
    logState.isToolkitLog = true;
    return true;
}

/// True when the engine's log has no room for a text, or could not be opened last time. Called with streamMutex held.
bool IsOwnLogFull(std::string_view text) {
    std::uint64_t size = 0;
    if (logState.gv_logFile == 0) return true;
    return platform::Files().GetFileSizeEx(logState.gv_logFile, size) == platform::error::success &&
           size + text.size() > maxLogSize;
}

}  // namespace

void SetToolkitLogLevel(std::int32_t agentLogLevel) {
    const std::int32_t level = agentLogLevel == 3 ? 2 : agentLogLevel == 4 || agentLogLevel == 5 ? 3 : 0;
    toolkitLogLevel.store(level, std::memory_order_relaxed);
}

bool OpenToolkitLog(std::string_view name) {
    const std::u16string path = ToolkitLogPath(name);
    const std::lock_guard stream(logState.streamMutex);
    if (BeginOwnLog(path)) return true;
    std::printf("Unable to open the file %s\n", platform::Utf8FromWide(path).c_str());
    return false;
}

void PrintToConsole(std::string_view text) noexcept {
    const std::lock_guard stream(logState.streamMutex);
    if (!logState.listener) std::fwrite(text.data(), 1, text.size(), stdout);
}

void CheckToolkitLogSize(std::string_view text) {
    if (!logState.isToolkitLog) return;
    const std::lock_guard stream(logState.streamMutex);
    if (!IsOwnLogFull(text)) return;
    const bool failedBefore = logState.gv_logFile == 0;
    const std::u16string path = ownLogPath;
    if (!BeginOwnLog(path) && !failedBefore)
        std::printf("Unable to open the file %s\n", platform::Utf8FromWide(path).c_str());
}

void WriteToolkitLine(std::string_view text) noexcept {
    try {
        CheckToolkitLogSize(text);
        AppendToLog(text);
    } catch (...) {
        // Out of memory: the line is lost.
    }
}

}  // namespace kv::snmp

#include "snmp/toolkit_log.h"

#include <algorithm>
#include <cstdio>
#include <mutex>
#include <string>

#include "platform/files.h"
#include "platform/utf.h"

namespace kv::snmp {

std::atomic<std::int32_t> toolkitLogLevel{0};

namespace {

constexpr std::uint64_t maxLogSize = 5'242'879;  // bytes

/// Guards the name, and lets one thread at a time look at the size.
std::mutex logSizeMutex;

std::u16string ownLogPath;  // empty while the agent's log is in place

/// Where a name leads from the agent's binary directory.
std::u16string PathOf(std::string_view name) {
    const std::string_view base = name.find(':') == name.npos ? "..\\" : "";
    return platform::WideFromUtf8(std::string(base).append(name));
}

/// Opens an empty file, or gives 0.
platform::FileHandle OpenEmpty(std::u16string_view path) {
    platform::FileHandle file = 0;
    if (platform::Files().CreateFileW(path, platform::FileAccess::write, platform::FileShare::read,
                                      platform::FileDisposition::createAlways, file) != platform::error::success)
        return 0;
    return file;
}

/// Takes the stream over. The agent's own file stays open: the last line of a thread that has seen it may be on its
/// way. One of the engine's own is closed.
void ReplaceStream(platform::FileHandle file) {
    const std::lock_guard stream(logState.streamMutex);
    if (logState.isToolkitLog.exchange(true)) platform::Files().CloseHandle(logState.gv_logFile);
    logState.gv_logFile = file;
}

}  // namespace

void SetToolkitLogLevel(std::int32_t agentLogLevel) {
    const std::int32_t level = agentLogLevel == 3 ? 2 : agentLogLevel == 4 || agentLogLevel == 5 ? 3 : 0;
    toolkitLogLevel.store(level, std::memory_order_relaxed);
}

bool OpenToolkitLog(std::string_view name) {
    const std::u16string path = PathOf(name);
    const platform::FileHandle file = OpenEmpty(path);
    logState.gv_logOpenFailed = file == 0 ? 1 : 0;
    if (file == 0) {
        std::printf("Unable to open the file %s\n", platform::Utf8FromWide(path).c_str());
        return false;
    }
    ReplaceStream(file);
    const std::lock_guard guard(logSizeMutex);
    ownLogPath = path;
    return true;
}

void CheckToolkitLogSize(std::string_view text) {
    if (!logState.isToolkitLog) return;
    const std::lock_guard guard(logSizeMutex);
    const std::lock_guard stream(logState.streamMutex);
    std::uint64_t size = 0;
    if (platform::Files().GetFileSizeEx(logState.gv_logFile, size) != platform::error::success) return;
    if (size + text.size() <= maxLogSize) return;
    if (logState.gv_logFile != 0) platform::Files().CloseHandle(logState.gv_logFile);
    logState.gv_logFile = OpenEmpty(ownLogPath);
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

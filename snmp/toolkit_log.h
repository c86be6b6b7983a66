// The engine's log lines. They go to the agent's log as they are, without date and time, and do not count towards its
// rotation by the agent. They have a level of their own: errors from 1 on, traces from 2 on, the finest traces at 3.
// Callable from any thread.
#pragma once

#include <atomic>
#include <cstdint>
#include <string_view>

#include "foundation/log.h"

namespace kv::snmp {

extern std::atomic<std::int32_t> toolkitLogLevel;  // 0 to 3; set again by every request

inline bool TkLogsAtLeast(std::int32_t level) { return toolkitLogLevel.load(std::memory_order_relaxed) >= level; }

/// The agent's level 3 gives 2, levels 4 and 5 give 3, all others give 0.
void SetToolkitLogLevel(std::int32_t agentLogLevel);

/// Appends one text to the log. Begins the engine's own log again first if it is full. Never throws: without memory the
/// text is lost.
void WriteToolkitLine(std::string_view text) noexcept;

/// Writes one engine line; without memory it is lost. It stands apart from the test of the level, which every routine
/// of the engine contains.
template <class... Arguments>
[[gnu::cold, gnu::noinline]] void WriteToolkitFormat(const char* format, const Arguments&... arguments) noexcept try {
    WriteToolkitLine(LogText(format, arguments...));
} catch (...) {
}

/// Writes one engine line if its level is on. The format and the arguments are those of foundation/log.h.
template <class... Arguments>
[[gnu::always_inline]] inline void TKLOG(std::int32_t level, const char* format, const Arguments&... arguments) {
    if (TkLogsAtLeast(level)) [[unlikely]]
        WriteToolkitFormat(format, arguments...);
}

/// Prints one text on standard output. Where a program that is not the agent takes the log's lines, standard output is
/// that program's, and nothing is printed. Never throws.
void PrintToConsole(std::string_view text) noexcept;

/// Puts a log of the engine's own in the place of the agent's: a new, empty file takes all further lines, the agent's
/// too. Its name is relative to the directory above the working directory, or is used as it is when it holds a colon.
/// The agent's file stays open, and is not rotated from then on. False, with a line on standard output, when the log
/// cannot be opened, and after EndLogRotation: the agent's log then stays in place. May throw std::bad_alloc.
[[nodiscard]] bool OpenToolkitLog(std::string_view name);

/// Begins the engine's own log again, empty, when it would reach 5 MiB with this text. If that fails, no line is
/// written until a later one opens it. Does nothing while the agent's log is in place. May throw std::bad_alloc.
void CheckToolkitLogSize(std::string_view text);

}  // namespace kv::snmp

// The engine's log lines. They go to the agent's log as they are, without date and time, and do not count towards its
// rotation. They have a level of their own: errors from 1 on, traces from 2 on, the finest traces at 3.
#pragma once

#include <atomic>
#include <cstdint>
#include <string_view>

#include "foundation/log.h"

namespace kv::snmp {

extern std::atomic<std::int32_t> toolkitLogLevel;  // 0 to 3; set again by every request

inline bool TkLogsAtLeast(std::int32_t level) { return toolkitLogLevel.load(std::memory_order_relaxed) >= level; }

/// Agent level 3 gives 2, 4 and 5 give 3, all others 0.
void SetToolkitLogLevel(std::int32_t agentLogLevel);

/// Appends one text to the log, after a look at the log's size. Never throws.
void WriteToolkitLine(std::string_view text) noexcept;

/// Out of memory: the line is lost. Apart from the step that asks for the level, which every routine of the engine
/// takes.
template <class... Arguments>
[[gnu::cold, gnu::noinline]] void WriteToolkitFormat(const char* format, const Arguments&... arguments) noexcept try {
    WriteToolkitLine(LogText(format, arguments...));
} catch (...) {
}

/// One engine line; a format is printf's, the arguments are those of foundation/log.h.
template <class... Arguments>
[[gnu::always_inline]] inline void TKLOG(std::int32_t level, const char* format, const Arguments&... arguments) {
    if (TkLogsAtLeast(level)) [[unlikely]]
        WriteToolkitFormat(format, arguments...);
}

/// Puts a log of the engine's own in the place of the agent's: a new, empty file under the base directory (or under the
/// name as it is, when it holds a colon) takes all further lines, the agent's too. The agent's file stays open, and a
/// mark keeps its rotation away from then on. False, with a line on standard output, when it cannot
/// be opened; the agent's log then stays in place.
[[nodiscard]] bool OpenToolkitLog(std::string_view name);

/// Begins the engine's own log again when it would pass 5 MiB with this text. Where that fails no line is written until
/// a later one opens it. Does nothing while the agent's log is in place.
void CheckToolkitLogSize(std::string_view text);

}  // namespace kv::snmp

// The log step. Every line of the agent's one text log goes through here; opening, rotating and closing the file is
// agent/log_file.h.
//
// The routine that a line is written with names its level; a line of a level that is switched off costs one comparison.
// The format is printf's with %d, %u, %x (a width and leading zeros, as in %04d, are known, and so is "l"), %s and %%.
// The arguments are numbers, narrow texts (UTF-8) or wide texts; a null pointer or an absent text prints "(null)". A
// text argument never leaves its line: see AppendInLine. Callable from any thread.
#pragma once

#include <array>
#include <atomic>
#include <cstdint>
#include <functional>
#include <mutex>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <type_traits>
#include <variant>

#include "foundation/published_text.h"
#include "platform/files.h"

namespace kv {

inline constexpr std::uint32_t defaultLogMaxSize = 1000000;  // characters
inline constexpr std::uint32_t defaultLogMaxFiles = 10;

struct LogState {
    std::atomic<std::uint32_t> gv_logLevel{0};  // verbosity; 0 writes nothing
    platform::FileHandle gv_logFile = 0;        // open for appending, or 0; guarded by streamMutex
    std::u16string gv_logPath;                  // full path of the current log; empty before RotateLogger
    std::atomic<std::uint32_t> gv_logBytes{0};  // running size counter, in characters of the unexpanded formats
    std::atomic<std::uint32_t> gv_logMaxSize{defaultLogMaxSize};
    std::atomic<std::uint32_t> gv_logMaxFiles{defaultLogMaxFiles};
    std::atomic<std::uint16_t> gv_logOpenFailed{0};

    /// The SNMP engine has put a log of its own in the place of this one (snmp/toolkit_log.h): lines go there, and
    /// nothing rotates it.
    std::atomic<bool> isToolkitLog{false};

    /// Set by EndLogRotation: no rotation begins any more.
    std::atomic<bool> isRotationOver{false};

    /// Called, while isToolkitLog, with each line of the agent before it is written: bounds the engine's log.
    void (*makeToolkitRoom)(std::string_view text) = nullptr;

    /// Keeps the stream open between a line's test and its write; held for one line, or while the stream changes files.
    /// Nobody takes the rotation's resource lock while holding it.
    std::mutex streamMutex;

    /// Takes each line, without its date, in the place of the log; for programs that are not the agent. Null in the
    /// agent. Guarded by streamMutex.
    std::function<void(std::string_view line)> listener;

    /// Called with the counter when it has passed the limit; null before RotateLogger sets it.
    int (*rotate)(std::uint32_t count) = nullptr;
};

extern LogState logState;

/// Prefix of every line: newline, local date and time to the millisecond, one blank.
std::string PrefixLogFormat(std::string_view format);

/// One argument of a line. A number keeps its size: "%u" and "%x" print a negative one as C does. A text is the
/// caller's, and is not copied.
using LogArgument =
    std::variant<std::int32_t, std::uint32_t, std::int64_t, std::uint64_t, std::string_view, std::u16string_view>;

/// Adds a text to a line so that no stranger writes lines or escapes of their own: control characters (also those above
/// 0x7F, and Unicode's line ends and marks of direction) are shown as "\n" or "\x1B", what is not Unicode as U+FFFD.
/// Line ends behind a text, such as a system's message has, are left out. Throws std::bad_alloc.
void AppendInLine(std::string& line, std::string_view utf8);
void AppendInLine(std::string& line, std::u16string_view wide);

/// The text of a format and its arguments. A format that does not fit its arguments comes back as it stands. "%d" and
/// the like print a 32-bit number as its 32 bits, as in C, and any other number as its value. Throws std::bad_alloc.
std::string PrintedLogText(std::string_view format, std::span<const LogArgument> arguments);

/// Prints one line to the log file, counts it, and rotates when the counter has passed the limit. The caller has tested
/// the level. Never throws: without memory the line is lost.
void WriteLogLine(const char* format, std::span<const LogArgument> arguments) noexcept;

/// Writes a text without a prefix, with the line ends of the system's text files; it does not count towards the
/// rotation. Does nothing while no log is open. Never throws.
void AppendToLog(std::string_view text) noexcept;

namespace log_detail {

constexpr std::string_view nullText = "(null)";

template <class T>
LogArgument Printable(const T& value) {
    if constexpr (std::is_same_v<T, std::optional<std::u16string>>) {
        return value ? LogArgument(std::u16string_view(*value)) : nullText;
    } else if constexpr (std::is_same_v<T, PublishedText>) {
        const std::u16string* text = value.get();
        return text ? LogArgument(std::u16string_view(*text)) : nullText;
    } else if constexpr (std::is_pointer_v<T>) {
        using View = std::basic_string_view<std::remove_cv_t<std::remove_pointer_t<T>>>;
        return value ? LogArgument(View(value)) : nullText;
    } else if constexpr (std::is_convertible_v<const T&, std::u16string_view>) {
        return std::u16string_view(value);
    } else if constexpr (std::is_convertible_v<const T&, std::string_view>) {
        return std::string_view(value);
    } else if constexpr (std::is_enum_v<T>) {
        return Printable(static_cast<std::underlying_type_t<T>>(value));
    } else if constexpr (std::is_signed_v<T>) {
        return static_cast<std::conditional_t<sizeof(T) == 8, std::int64_t, std::int32_t>>(value);
    } else {
        return static_cast<std::conditional_t<sizeof(T) == 8, std::uint64_t, std::uint32_t>>(value);
    }
}

template <class... Arguments>
void Write(const char* format, const Arguments&... arguments) noexcept {
    const std::array<LogArgument, sizeof...(Arguments)> printable{Printable(arguments)...};
    WriteLogLine(format, printable);
}

}  // namespace log_detail

/// What a line with this format and these arguments says, without writing it. Throws std::bad_alloc.
template <class... Arguments>
std::string LogText(const char* format, const Arguments&... arguments) {
    const std::array<LogArgument, sizeof...(Arguments)> printable{log_detail::Printable(arguments)...};
    return PrintedLogText(format, printable);
}

/// Lines of level 1, 2 and 3 are written when the level is at least that, lines of level 4 when it is exactly 4.
inline bool LogsAtLeast(std::uint32_t level) { return logState.gv_logLevel.load(std::memory_order_relaxed) >= level; }
inline bool LogsTrace() { return logState.gv_logLevel.load(std::memory_order_relaxed) == 4; }

/// Failures, decisions, state changes.
template <class... Arguments>
inline void Log1(const char* format, const Arguments&... arguments) {
    if (LogsAtLeast(1)) log_detail::Write(format, arguments...);
}

/// Configuration dumps, control notifications, progress.
template <class... Arguments>
inline void Log2(const char* format, const Arguments&... arguments) {
    if (LogsAtLeast(2)) log_detail::Write(format, arguments...);
}

/// Flow of the ordinary routines.
template <class... Arguments>
inline void Log3(const char* format, const Arguments&... arguments) {
    if (LogsAtLeast(3)) log_detail::Write(format, arguments...);
}

/// Trace of small helpers.
template <class... Arguments>
inline void Log4(const char* format, const Arguments&... arguments) {
    if (LogsTrace()) log_detail::Write(format, arguments...);
}

}  // namespace kv

#include "foundation/log.h"

#include <algorithm>
#include <fmt/args.h>
#include <fmt/printf.h>
#include <iterator>

#include "platform/clock.h"

namespace kv {

LogState logState;

namespace {

/// Counts the unexpanded format, not what was printed: the limit is one of formats. Two threads may lose an addition
/// here; the counter is a threshold, not an account.
std::uint32_t Count(std::size_t characters) {
    const std::uint32_t bytes =
        logState.gv_logBytes.load(std::memory_order_relaxed) + static_cast<std::uint32_t>(characters);
    logState.gv_logBytes.store(bytes, std::memory_order_relaxed);
    return bytes;
}

/// "%ld" means 64 bits in every log text, and on Windows they are written "%lld".
std::string WithWideLongs(std::string_view format) {
    std::string wide;
    for (std::size_t at = 0; at < format.size(); ++at) {
        wide += format[at];
        if (format[at] != '%') continue;
        const std::size_t end = std::min(format.find_first_not_of("-+ #.*0123456789", at + 1), format.size());
        wide += format.substr(at + 1, end - at - 1);
        if (format.substr(end).starts_with('l') && !format.substr(end).starts_with("ll")) wide += 'l';
        if (end < format.size()) wide += format[end];
        at = end;
    }
    return wide;
}

}  // namespace

std::string PrefixLogFormat(std::string_view format) {
    const platform::ClockOperations& clock = platform::Clock();
    const platform::LocalTime now = clock.ToLocalTime(clock.GetSystemTimeMilliseconds());
    std::string prefixed;
    prefixed.reserve(format.size() + 28);
    fmt::format_to(std::back_inserter(prefixed), "\n{:02}/{:02}/{:02}  {:02}:{:02}:{:02}:{:03} {}", now.year, now.month,
                   now.day, now.hour, now.minute, now.second, now.millisecond, format);
    return prefixed;
}

std::string PrintedLogText(const std::string& format, std::span<const LogArgument> arguments) {
    fmt::dynamic_format_arg_store<fmt::printf_context> store;
    for (const LogArgument& argument : arguments) {
        std::visit([&store](const auto& value) { store.push_back(value); }, argument);
    }
    try {
        return fmt::vsprintf(fmt::string_view(WithWideLongs(format)),
                             fmt::basic_format_args<fmt::printf_context>(store));
    } catch (const fmt::format_error&) {
        return format;
    }
}

void AppendToLog(std::string_view text) noexcept {
    try {
        const std::lock_guard stream(logState.streamMutex);
        if (logState.gv_logFile != 0) platform::Files().WriteFile(logState.gv_logFile, text.data(), text.size());
    } catch (...) {
        // A failed write, such as one to a full disk, costs the line and nothing else.
    }
}

void WriteLogLine(const char* format, std::span<const LogArgument> arguments) noexcept {
    try {
        const std::string prefixed = PrefixLogFormat(format);
        AppendToLog(PrintedLogText(prefixed, arguments));
        const std::uint32_t bytes = Count(prefixed.size());
        if (bytes > logState.gv_logMaxSize.load(std::memory_order_relaxed) && logState.rotate) logState.rotate(bytes);
    } catch (...) {
        // Out of memory: logging never reports a failure to its caller, so this line is lost.
    }
}

}  // namespace kv

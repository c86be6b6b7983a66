#include "foundation/log.h"

#include <algorithm>
#include <charconv>
#include <fmt/format.h>
#include <iterator>
#include <limits>
#include <utf8.h>

#include "foundation/line_bound.h"
#include "platform/clock.h"

namespace kv {

LogState logState;

namespace {

constexpr char32_t replacement = 0xFFFD;

bool IsControl(char32_t point) { return point < 0x20 || (point >= 0x7F && point < 0xA0); }

/// Unicode's two line ends, and the marks that show the rest of a line from right to left.
bool TurnsLine(char32_t point) {
    return point == 0x200E || point == 0x200F || (point >= 0x2028 && point <= 0x202E) ||
           (point >= 0x2066 && point <= 0x2069);
}

void AppendPoint(std::string& line, char32_t point) {
    if (IsControl(point)) {
        constexpr std::string_view named = "\t\n\r";
        const std::size_t at = named.find(static_cast<char>(point));
        if (point < 0x80 && at != named.npos)
            line.append(1, '\\').append(1, "tnr"[at]);
        else
            fmt::format_to(std::back_inserter(line), "\\x{:02X}", static_cast<unsigned>(point));
    } else if (TurnsLine(point)) {
        fmt::format_to(std::back_inserter(line), "\\u{:04X}", static_cast<unsigned>(point));
    } else {
        utf8::unchecked::append(point, std::back_inserter(line));
    }
}

/// Takes the next character off a text; what is not well-formed goes unit by unit, as U+FFFD.
char32_t TakePoint(std::string_view& text) {
    const char* next = text.data();
    char32_t point = replacement;
    try {
        point = utf8::next(next, text.data() + text.size());
    } catch (const utf8::exception&) {
        ++next;
    }
    text.remove_prefix(static_cast<std::size_t>(next - text.data()));
    return point;
}

char32_t TakePoint(std::u16string_view& text) {
    const char32_t first = text[0];
    const bool isPair = first >= 0xD800 && first < 0xDC00 && text.size() > 1 && text[1] >= 0xDC00 && text[1] < 0xE000;
    const char32_t second = isPair ? text[1] : 0;
    text.remove_prefix(isPair ? 2 : 1);
    if (isPair) return 0x10000 + ((first - 0xD800) << 10) + (second - 0xDC00);
    return first >= 0xD800 && first < 0xE000 ? replacement : first;
}

template <class Text>
void AppendCleaned(std::string& line, Text text) {
    while (!text.empty() && (text.back() == '\n' || text.back() == '\r')) text.remove_suffix(1);
    const auto isPlain = [](auto unit) { return unit >= 0x20 && unit < 0x7F; };
    while (!text.empty()) {
        if (isPlain(text.front())) {
            line += static_cast<char>(text.front());
            text.remove_prefix(1);
        } else {
            AppendPoint(line, TakePoint(text));
        }
    }
}

/// One conversion of a format, such as "%04ld".
struct Conversion {
    bool hasZeros = false;
    std::size_t width = 0;
    bool isLong = false;  // 64 bits, on every system
    char letter = 0;      // what the argument prints as; 0 when the format ends too early
};

/// Takes a conversion off the format, behind its percent sign.
Conversion TakeConversion(std::string_view& format) {
    constexpr std::size_t widest = 99;
    Conversion taken;
    for (; !format.empty(); format.remove_prefix(1)) {
        const char sign = format.front();
        if (sign == '0' && taken.width == 0) {
            taken.hasZeros = true;
        } else if (sign >= '0' && sign <= '9' && taken.width <= widest / 10) {
            taken.width = taken.width * 10 + static_cast<std::size_t>(sign - '0');
        } else if (sign == 'l') {
            taken.isLong = true;
        } else {
            taken.letter = sign;
            format.remove_prefix(1);
            break;
        }
    }
    return taken;
}

void AppendDigits(std::string& line, const Conversion& conversion, std::string_view sign, std::uint64_t magnitude) {
    char digits[std::numeric_limits<std::uint64_t>::digits10 + 1];
    const auto end = std::to_chars(std::begin(digits), std::end(digits), magnitude, conversion.letter == 'x' ? 16 : 10);
    const auto count = static_cast<std::size_t>(end.ptr - digits) + sign.size();
    const std::size_t padding = conversion.width - std::min(conversion.width, count);
    if (!conversion.hasZeros) line.append(padding, ' ');
    line.append(sign);
    if (conversion.hasZeros) line.append(padding, '0');
    line.append(digits, end.ptr);
}

void AppendSigned(std::string& line, const Conversion& conversion, std::int64_t number) {
    const auto magnitude = static_cast<std::uint64_t>(number);
    AppendDigits(line, conversion, number < 0 ? "-" : "", number < 0 ? 0 - magnitude : magnitude);
}

/// A 32-bit number without an "l" prints as its 32 bits, read as the conversion says; any other number prints as its
/// value, so that a conversion that is too narrow loses no upper half.
template <class Number>
bool AppendNumber(std::string& line, const Conversion& conversion, Number number) {
    const bool is32 = sizeof(number) == 4 && !conversion.isLong;
    if (conversion.letter == 'd' && is32)
        AppendSigned(line, conversion, static_cast<std::int32_t>(number));
    else if ((conversion.letter == 'd' || conversion.letter == 's') && std::is_signed_v<Number>)
        AppendSigned(line, conversion, static_cast<std::int64_t>(number));
    else if (std::string_view("duxs").find(conversion.letter) != std::string_view::npos)
        AppendDigits(line, conversion, "",
                     is32 ? static_cast<std::uint32_t>(number) : static_cast<std::uint64_t>(number));
    else
        return false;
    return true;
}

bool Append(std::string& line, const Conversion& conversion, const LogArgument& argument) {
    return std::visit(
        [&](auto value) {
            if constexpr (std::is_integral_v<decltype(value)>) {
                return AppendNumber(line, conversion, value);
            } else {
                if (conversion.letter == 's') AppendInLine(line, value);
                return conversion.letter == 's';
            }
        },
        argument);
}

/// Room for a line, so that printing it allocates once: three bytes for each wide character, 20 for a number.
std::size_t RoomFor(std::string_view format, std::span<const LogArgument> arguments) {
    std::size_t room = format.size();
    for (const LogArgument& argument : arguments) {
        if (const auto* narrow = std::get_if<std::string_view>(&argument))
            room += narrow->size();
        else if (const auto* wide = std::get_if<std::u16string_view>(&argument))
            room += 3 * wide->size();
        else
            room += 20;
    }
    return room;
}

}  // namespace

void AppendInLine(std::string& line, std::string_view utf8) { AppendCleaned(line, utf8); }

void AppendInLine(std::string& line, std::u16string_view wide) { AppendCleaned(line, wide); }

std::string PrefixLogFormat(std::string_view format) {
    const platform::ClockOperations& clock = platform::Clock();
    const platform::LocalTime now = clock.ToLocalTime(clock.GetSystemTimeMilliseconds());
    std::string prefixed;
    prefixed.reserve(format.size() + 28);
    fmt::format_to(std::back_inserter(prefixed), "\n{:02}/{:02}/{:02}  {:02}:{:02}:{:02}:{:03} {}", now.year, now.month,
                   now.day, now.hour, now.minute, now.second, now.millisecond, format);
    return prefixed;
}

std::string PrintedLogText(std::string_view format, std::span<const LogArgument> arguments) {
    std::string line;
    line.reserve(RoomFor(format, arguments));
    for (std::string_view rest = format; !rest.empty();) {
        const std::size_t percent = std::min(rest.find('%'), rest.size());
        line.append(rest.substr(0, percent));
        rest.remove_prefix(percent);
        if (rest.empty()) break;
        rest.remove_prefix(1);
        const Conversion conversion = TakeConversion(rest);
        if (conversion.letter == '%') {
            line += '%';
            continue;
        }
        if (arguments.empty() || !Append(line, conversion, arguments.front())) return std::string(format);
        arguments = arguments.subspan(1);
    }
    return line;
}

void AppendToLog(std::string_view text) noexcept {
    try {
        const std::lock_guard stream(logState.streamMutex);
        if (logState.gv_logFile != 0) platform::Files().WriteText(logState.gv_logFile, text);
    } catch (...) {
        // A failed write, such as one to a full disk, costs the line and nothing else.
    }
}

namespace {

/// Gives the line to whoever listens in the place of the log; false when nobody does.
bool ToListener(const char* format, std::span<const LogArgument> arguments) {
    const std::lock_guard lock(logState.streamMutex);
    if (logState.listener) logState.listener(PrintedLogText(format, arguments));
    return logState.listener != nullptr;
}

}  // namespace

void WriteLogLine(const char* format, std::span<const LogArgument> arguments) noexcept {
    try {
        if (!LineBound::Admits(format)) return;
        if (ToListener(format, arguments)) return;
        const std::string prefixed = PrefixLogFormat(format);
        const std::string line = PrintedLogText(prefixed, arguments);
        if (logState.isToolkitLog) logState.makeToolkitRoom(line);
        AppendToLog(line);
        // What counts is the unexpanded format, not what was printed: the limit is one of formats.
        const auto length = static_cast<std::uint32_t>(prefixed.size());
        const std::uint32_t bytes = logState.gv_logBytes.fetch_add(length, std::memory_order_relaxed) + length;
        if (bytes > logState.gv_logMaxSize.load(std::memory_order_relaxed) && logState.rotate) logState.rotate(bytes);
    } catch (...) {
        // Out of memory: logging never reports a failure to its caller, so this line is lost.
    }
}

}  // namespace kv

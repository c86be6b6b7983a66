#include "lab/commands/duration.h"

#include <charconv>
#include <string_view>

#include "lab/commands/command_line.h"

namespace kv::lab {

namespace {

constexpr std::int64_t longest = 100'000;  // of any unit

std::int64_t MillisecondsOf(char unit) {
    switch (unit) {
        case 's':
            return 1000;
        case 'm':
            return 60'000;
        case 'h':
            return 3'600'000;
        case 'd':
            return 86'400'000;
        case 'w':
            return 604'800'000;
        default:
            return 0;
    }
}

}  // namespace

std::int64_t MillisecondsIn(const std::string& text) {
    std::int64_t number = 0;
    const char* const end = text.data() + text.size();
    const auto [unit, error] = std::from_chars(text.data(), end, number);
    const bool isWhole = error == std::errc() && unit + 1 == end && number > 0 && number <= longest;
    return isWhole ? number * MillisecondsOf(*unit) : 0;
}

std::int64_t DurationOf(const std::string& option, const std::string& text) {
    const std::int64_t milliseconds = MillisecondsIn(text);
    if (milliseconds == 0)
        throw UsageError(option + " takes a number to 100000 with s, m, h, d or w behind it, such as 7d, not '" + text +
                         "'");
    return milliseconds;
}

}  // namespace kv::lab

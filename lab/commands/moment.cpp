#include "lab/commands/moment.h"

#include <ctime>

#include "lab/commands/command_line.h"
#include "lab/commands/duration.h"

namespace kv::lab {

namespace {

/// Whether a whole text is a time of this form.
bool IsTime(const std::string& text, const char* form, std::tm& time) {
    time = {};
    const char* const end = strptime(text.c_str(), form, &time);
    return end != nullptr && *end == '\0';
}

}  // namespace

std::int64_t MomentOf(const std::string& option, const std::string& text, std::int64_t now) {
    std::string plain = text;
    if (plain.ends_with('Z')) plain.pop_back();
    if (const std::size_t mark = plain.find('T'); mark != std::string::npos) plain[mark] = ' ';
    std::tm time{};
    for (const char* const form : {"%Y-%m-%d", "%Y-%m-%d %H:%M", "%Y-%m-%d %H:%M:%S"})
        if (IsTime(plain, form, time)) return static_cast<std::int64_t>(timegm(&time)) * 1000;
    if (text.find('-') != std::string::npos)
        throw UsageError(option + " takes a time in UTC such as '2026-11-27 12:00', or 15m, 2h, 7d ago, not '" + text +
                         "'");
    return now - DurationOf(option, text);
}

}  // namespace kv::lab

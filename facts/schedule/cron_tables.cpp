#include "facts/schedule/cron_tables.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <span>
#include <strings.h>

#include "facts/system_text.h"

namespace kv::facts {

namespace {

constexpr std::array<std::string_view, 12> monthNames{"jan", "feb", "mar", "apr", "may", "jun",
                                                      "jul", "aug", "sep", "oct", "nov", "dec"};
constexpr std::array<std::string_view, 7> weekdayNames{"sun", "mon", "tue", "wed", "thu", "fri", "sat"};

/// One of the five fields of a time. Names stand for numbers from the least one on.
struct FieldForm {
    std::uint64_t least;
    std::uint64_t most;
    std::span<const std::string_view> names;
};

constexpr std::array<FieldForm, 5> fieldForms{
    {{0, 59, {}}, {0, 23, {}}, {1, 31, {}}, {1, 12, monthNames}, {0, 7, weekdayNames}}};

std::optional<std::uint64_t> ValueOf(std::string_view text, const FieldForm& form) {
    for (std::size_t at = 0; at < form.names.size(); ++at) {
        const std::string_view name = form.names[at];
        if (text.size() == name.size() && strncasecmp(text.data(), name.data(), name.size()) == 0)
            return form.least + at;
    }
    const std::optional<std::uint64_t> number = NumberOf(text);
    return number && *number >= form.least && *number <= form.most ? number : std::nullopt;
}

/// The bits of "*", "5", "1-5", "*/10" or "8-18/2"; 0 for other text.
std::uint64_t BitsOfRange(std::string_view text, const FieldForm& form) {
    const bool hasStep = text.find('/') != std::string_view::npos;
    std::string_view range = TakeUpTo("/", text);
    const std::optional<std::uint64_t> step = hasStep ? NumberOf(text) : 1;
    std::optional<std::uint64_t> first = form.least;
    std::optional<std::uint64_t> last = form.most;
    if (range != "*") {
        const bool hasEnd = range.find('-') != std::string_view::npos;
        first = ValueOf(TakeUpTo("-", range), form);
        if (hasEnd) {
            last = ValueOf(range, form);
        } else if (!hasStep) {
            last = first;
        }
    }
    std::uint64_t bits = 0;
    if (!step || *step == 0 || !first || !last) return bits;
    for (std::uint64_t value = *first; value <= *last; value += *step) bits |= std::uint64_t{1} << value;
    return bits;
}

bool ParseField(std::string_view text, const FieldForm& form, std::uint64_t& bits) {
    bits = 0;
    if (text.ends_with(',')) return false;
    while (!text.empty()) {
        const std::uint64_t range = BitsOfRange(TakeUpTo(",", text), form);
        if (range == 0) return false;
        bits |= range;
    }
    return bits != 0;
}

std::optional<CronTime> ParseTime(const std::array<std::string_view, 5>& fields) {
    constexpr std::uint64_t sunday = 1;
    constexpr std::uint64_t otherSunday = 1 << 7;
    CronTime time;
    constexpr std::uint64_t CronTime::*parts[] = {&CronTime::minutes, &CronTime::hours, &CronTime::days,
                                                  &CronTime::months, &CronTime::weekdays};
    for (std::size_t at = 0; at < fields.size(); ++at) {
        if (!ParseField(fields[at], fieldForms[at], time.*parts[at])) return std::nullopt;
    }
    if ((time.weekdays & otherSunday) != 0) time.weekdays = (time.weekdays | sunday) & ~otherSunday;
    time.areBothDays = fields[2].starts_with('*') || fields[4].starts_with('*');
    return time;
}

/// The five fields that a word such as "@daily" stands for; absent for other words. All of them empty for "@reboot".
std::optional<std::array<std::string_view, 5>> FieldsOfWord(std::string_view word) {
    constexpr struct {
        std::string_view word;
        std::array<std::string_view, 5> fields;
    } words[] = {
        {"@reboot", {}},
        {"@yearly", {"0", "0", "1", "1", "*"}},
        {"@annually", {"0", "0", "1", "1", "*"}},
        {"@monthly", {"0", "0", "1", "*", "*"}},
        {"@weekly", {"0", "0", "*", "*", "0"}},
        {"@daily", {"0", "0", "*", "*", "*"}},
        {"@midnight", {"0", "0", "*", "*", "*"}},
        {"@hourly", {"0", "*", "*", "*", "*"}},
    };
    for (const auto& known : words) {
        if (known.word == word) return known.fields;
    }
    return std::nullopt;
}

/// A line such as "PATH=/bin" or "MAILTO = root".
bool SetsVariable(std::string_view line) {
    const std::string_view name = Trimmed(TakeUpTo("=", line));
    return line.data() != name.data() + name.size() && !name.empty() &&
           std::isdigit(static_cast<unsigned char>(name[0])) == 0 &&
           name.find_first_of(" \t*@,/") == std::string_view::npos;
}

/// A range such as "0~59" or "~", within which one cron takes a number at random when it reads the table.
bool IsRandom(std::string_view text, const FieldForm& form) {
    if (text.find('~') == std::string_view::npos) return false;
    const std::string_view least = TakeUpTo("~", text);
    const std::optional<std::uint64_t> first = least.empty() ? form.least : ValueOf(least, form);
    const std::optional<std::uint64_t> last = text.empty() ? form.most : ValueOf(text, form);
    return first && last && *first <= *last;
}

/// Puts the least number of each random range in its place; whether there was any.
bool FixRandomRanges(std::array<std::string_view, 5>& fields) {
    bool isRandom = false;
    for (std::size_t at = 0; at < fields.size(); ++at) {
        if (!IsRandom(fields[at], fieldForms[at])) continue;
        fields[at] = at == 2 || at == 3 ? "1" : "0";
        isRandom = true;
    }
    return isRandom;
}

std::optional<CronJob> ParseJob(std::string_view line) {
    CronJob job;
    if (line.starts_with('-')) line.remove_prefix(1);  // some crons then write nothing to the log
    std::array<std::string_view, 5> fields;
    const char* const start = line.data();
    fields[0] = TakeField(line);
    const char* end = fields[0].data() + fields[0].size();
    if (fields[0].starts_with('@')) {
        const auto meant = FieldsOfWord(fields[0]);
        if (!meant) return std::nullopt;
        fields = *meant;
    } else {
        for (std::size_t at = 1; at < fields.size(); ++at) fields[at] = TakeField(line);
        end = fields[4].data() + fields[4].size();
        if (fields[4].empty()) return std::nullopt;
    }
    job.when = std::string(start, end);
    job.user = TakeField(line);
    job.command = Trimmed(line);
    job.isAtStart = fields[0].empty();
    const bool isRandom = FixRandomRanges(fields);
    if (!job.isAtStart) job.time = ParseTime(fields);
    const bool isJob = (job.isAtStart || job.time) && !job.user.empty() && !job.command.empty();
    if (isRandom) job.time.reset();
    return isJob ? std::optional(std::move(job)) : std::nullopt;
}

bool HasBit(std::uint64_t bits, int bit) { return ((bits >> bit) & 1) != 0; }

bool RunsOn(const CronTime& time, const std::tm& day) {
    const bool isDate = HasBit(time.days, day.tm_mday);
    const bool isWeekday = HasBit(time.weekdays, day.tm_wday);
    return HasBit(time.months, day.tm_mon + 1) && (time.areBothDays ? isDate && isWeekday : isDate || isWeekday);
}

std::time_t MomentOn(std::tm day, int hour, int minute) {
    day.tm_hour = hour;
    day.tm_min = minute;
    day.tm_sec = 0;
    day.tm_isdst = -1;
    return std::mktime(&day);
}

}  // namespace

std::optional<std::vector<CronJob>> ParseCronTable(std::string_view text) {
    std::vector<CronJob> jobs;
    std::string_view line;
    while (TakeLine(text, line)) {
        line = Trimmed(line);
        if (line.empty() || line.starts_with('#') || SetsVariable(line)) continue;
        std::optional<CronJob> job = ParseJob(line);
        if (!job) return std::nullopt;
        jobs.push_back(std::move(*job));
    }
    return jobs;
}

std::optional<std::time_t> NextRun(const CronTime& time, std::time_t after) {
    constexpr int years = 4;
    constexpr int noon = 12;  // is there on every day
    std::tm day{};
    if (localtime_r(&after, &day) == nullptr) return std::nullopt;
    const int lastYear = day.tm_year + years;
    while (day.tm_year <= lastYear) {
        for (int minute = 0; minute < 24 * 60 && RunsOn(time, day); ++minute) {
            if (!HasBit(time.hours, minute / 60) || !HasBit(time.minutes, minute % 60)) continue;
            const std::time_t run = MomentOn(day, minute / 60, minute % 60);
            if (run > after) return run;
        }
        const bool isInMonth = HasBit(time.months, day.tm_mon + 1);
        day.tm_mon += isInMonth ? 0 : 1;
        day.tm_mday = isInMonth ? day.tm_mday + 1 : 1;
        const std::time_t next = MomentOn(day, noon, 0);
        if (localtime_r(&next, &day) == nullptr) break;
    }
    return std::nullopt;
}

std::optional<JobDays> DaysOf(const CronTime& time) {
    constexpr std::uint64_t everyMonth = 0x1FFE;
    constexpr std::uint64_t everyDate = 0xFFFFFFFE;
    constexpr std::uint64_t sunday = 1;
    if (time.months != everyMonth) return std::nullopt;
    const bool hasDates = time.days != everyDate;
    const auto ofWeek = static_cast<std::uint32_t>(((time.weekdays >> 1) | ((time.weekdays & sunday) << 6)));
    const bool hasWeekdays = ofWeek != everyDayOfWeek;
    if (hasDates && hasWeekdays && time.areBothDays) return std::nullopt;
    JobDays days;
    if (hasDates) days.ofMonth = static_cast<std::uint32_t>(time.days >> 1);
    if (hasWeekdays || !hasDates) days.ofWeek = ofWeek;
    return days;
}

}  // namespace kv::facts

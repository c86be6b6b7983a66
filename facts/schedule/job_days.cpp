#include "facts/schedule/job_days.h"

#include <array>
#include <cctype>
#include <string>

#include "facts/system_text.h"

namespace kv::facts {

namespace {

/// The day's bit number; absent for other text.
std::optional<std::uint64_t> WeekdayOf(std::string_view name) {
    constexpr std::array<std::string_view, 7> names{"Mon", "Tue", "Wed", "Thu", "Fri", "Sat", "Sun"};
    for (std::size_t day = 0; day < names.size(); ++day) {
        if (name == names[day]) return day;
    }
    return std::nullopt;
}

std::optional<std::uint64_t> MonthDayOf(std::string_view text) {
    const std::optional<std::uint64_t> day = NumberOf(text);
    return day && *day >= 1 && *day <= 31 ? std::optional(*day - 1) : std::nullopt;
}

/// The bits of a list such as "Mon..Wed,Fri" or "1,15". Absent for what is not a list of days.
std::optional<std::uint32_t> BitsOf(std::string_view list,
                                    std::optional<std::uint64_t> (*bitOf)(std::string_view text)) {
    std::uint32_t bits = 0;
    while (!list.empty()) {
        std::string_view item = TakeUpTo(",", list);
        const std::optional<std::uint64_t> first = bitOf(TakeUpTo("..", item));
        const std::optional<std::uint64_t> last = item.empty() ? first : bitOf(item);
        if (!first || !last) return std::nullopt;
        for (std::uint64_t bit = *first; bit <= *last; ++bit) bits |= 1U << bit;
    }
    return bits;
}

}  // namespace

std::optional<JobDays> DaysOfCalendar(std::string_view expression) {
    std::string_view weekdays;
    std::string_view date = TakeField(expression);
    if (!date.empty() && std::isalpha(static_cast<unsigned char>(date.front())) != 0) {
        weekdays = date;
        date = TakeField(expression);
    }
    constexpr std::string_view everyMonth = "*-*-";
    if (!date.starts_with(everyMonth)) return std::nullopt;
    date.remove_prefix(everyMonth.size());
    const bool isEveryDate = date == "*";
    if (!weekdays.empty() && !isEveryDate) return std::nullopt;
    if (weekdays.empty() && isEveryDate) return JobDays{.ofWeek = everyDayOfWeek};
    JobDays days;
    const std::optional<std::uint32_t> bits = isEveryDate ? BitsOf(weekdays, WeekdayOf) : BitsOf(date, MonthDayOf);
    if (!bits) return std::nullopt;
    (isEveryDate ? days.ofWeek : days.ofMonth) = *bits;
    return days;
}

}  // namespace kv::facts

// Moments as DMTF texts and back.
#include <algorithm>
#include <array>
#include <chrono>
#include <cstdio>
#include <ctime>

#include "wql/cim_value.h"
#include "wql/class_tree.h"

namespace kv::wql {

namespace {

using namespace std::chrono;
using Moment = sys_time<microseconds>;

/// A day inside the four-digit years at either end, so that local time has four digits, too.
constexpr Moment earliest = sys_days(year(1) / 1 / 2);
constexpr Moment latest = sys_days(year(9999) / 12 / 31) - microseconds(1);

constexpr std::u16string_view dmtfForm = u"dddddddddddddd.dddddd+ddd";

bool IsDigit(char16_t unit) { return unit >= u'0' && unit <= u'9'; }

bool HasForm(std::u16string_view text, std::u16string_view form) {
    return std::equal(text.begin(), text.end(), form.begin(), form.end(), [](char16_t unit, char16_t wanted) {
        if (wanted == u'd') return IsDigit(unit);
        return unit == wanted || (wanted == u'+' && unit == u'-');
    });
}

/// The number at a place of a text that is known to hold digits there.
unsigned NumberAt(std::u16string_view text, std::size_t at, std::size_t count) {
    unsigned number = 0;
    for (const char16_t digit : text.substr(at, count)) number = number * 10 + (digit - u'0');
    return number;
}

/// The offset of local time from UTC in whole minutes. Historic offsets have seconds, which the text cannot hold.
minutes OffsetAt(Moment moment) {
    const std::time_t sinceEpoch = floor<seconds>(moment).time_since_epoch().count();
    std::tm local{};
    if (localtime_r(&sinceEpoch, &local) == nullptr) return minutes(0);
    return minutes(local.tm_gmtoff / 60);
}

Moment MomentOfLocalTime(Moment local) { return local - OffsetAt(local - OffsetAt(local)); }

/// Takes a number off a text; absent if it has fewer or more digits than these.
std::optional<unsigned> TakeNumber(std::u16string_view& text, std::size_t fewest, std::size_t most) {
    const auto end = std::find_if_not(text.begin(), text.end(), IsDigit);
    const auto count = static_cast<std::size_t>(end - text.begin());
    if (count < fewest || count > most) return std::nullopt;
    const unsigned number = NumberAt(text, 0, count);
    text.remove_prefix(count);
    return number;
}

bool TakeUnit(std::u16string_view& text, char16_t unit) {
    const bool isNext = text.starts_with(unit);
    if (isNext) text.remove_prefix(1);
    return isNext;
}

year_month_day DateOf(unsigned years, unsigned months, unsigned days) {
    return {year(static_cast<int>(years)), month(months), day(days)};
}

/// "-" and the like, then a number of one or two digits.
std::optional<unsigned> TakePart(std::u16string_view& text, char16_t separator) {
    return TakeUnit(text, separator) ? TakeNumber(text, 1, 2) : std::nullopt;
}

/// What follows the year in "2026-01-31".
std::optional<year_month_day> TakeDateAfter(unsigned year, std::u16string_view& text) {
    const std::optional<unsigned> month = TakePart(text, u'-');
    const std::optional<unsigned> day = TakePart(text, u'-');
    return month && day ? std::optional(DateOf(year, *month, *day)) : std::nullopt;
}

/// "1/31/2026".
std::optional<year_month_day> TakeDateByMonth(std::u16string_view& text) {
    const std::optional<unsigned> month = TakeNumber(text, 1, 2);
    const std::optional<unsigned> day = TakePart(text, u'/');
    const std::optional<unsigned> year = TakeUnit(text, u'/') ? TakeNumber(text, 4, 4) : std::nullopt;
    return month && day && year ? std::optional(DateOf(*year, *month, *day)) : std::nullopt;
}

std::optional<year_month_day> TakeDate(std::u16string_view& text) {
    if (const std::optional<unsigned> whole = TakeNumber(text, 8, 8)) {
        return DateOf(*whole / 10000, *whole / 100 % 100, *whole % 100);
    }
    if (const std::optional<unsigned> year = TakeNumber(text, 4, 4)) return TakeDateAfter(*year, text);
    return TakeDateByMonth(text);
}

/// The fraction of a second after its point, to the microsecond.
std::optional<microseconds> TakeFraction(std::u16string_view& text) {
    const std::size_t size = text.size();
    const std::optional<unsigned> number = TakeNumber(text, 1, 6);
    if (!number) return std::nullopt;
    microseconds fraction(*number);
    for (std::size_t digits = size - text.size(); digits < 6; ++digits) fraction *= 10;
    return fraction;
}

/// An hour of the day by its number and "AM" or "PM" after it; without these by its number alone.
std::optional<hours> HourOf(unsigned number, std::u16string_view half) {
    if (half.empty()) return number < 24 ? std::optional(hours(number)) : std::nullopt;
    const bool isAfternoon = CompareNames(half, u" PM") == 0;
    if ((!isAfternoon && CompareNames(half, u" AM") != 0) || number == 0 || number > 12) return std::nullopt;
    return hours(number % 12 + (isAfternoon ? 12 : 0));
}

/// The time of day that a whole text names.
std::optional<microseconds> TimeOfDay(std::u16string_view text) {
    const std::optional<unsigned> hour = TakeNumber(text, 1, 2);
    if (!hour || !TakeUnit(text, u':')) return std::nullopt;
    const std::optional<unsigned> minute = TakeNumber(text, 1, 2);
    const std::optional<unsigned> second = TakeUnit(text, u':') ? TakeNumber(text, 1, 2) : 0;
    const std::optional<microseconds> fraction = TakeUnit(text, u'.') ? TakeFraction(text) : microseconds(0);
    if (!minute || !second || !fraction || *minute > 59 || *second > 59) return std::nullopt;
    const std::optional<hours> hourOfDay = HourOf(*hour, text);
    if (!hourOfDay) return std::nullopt;
    return *hourOfDay + minutes(*minute) + seconds(*second) + *fraction;
}

}  // namespace

std::u16string DmtfTime(std::int64_t microsecondsSince1970) {
    const Moment moment = std::clamp(Moment(microseconds(microsecondsSince1970)), earliest, latest);
    const minutes offset = OffsetAt(moment);
    const Moment local = moment + offset;
    const sys_days day = floor<days>(local);
    const year_month_day date(day);
    const hh_mm_ss time(local - day);
    std::array<char, 128> text{};
    std::snprintf(text.data(), text.size(), "%04d%02u%02u%02d%02d%02d.%06d%+04d", static_cast<int>(date.year()),
                  static_cast<unsigned>(date.month()), static_cast<unsigned>(date.day()),
                  static_cast<int>(time.hours().count()), static_cast<int>(time.minutes().count()),
                  static_cast<int>(time.seconds().count()), static_cast<int>(time.subseconds().count()),
                  static_cast<int>(offset.count()));
    return platform::WideFromUtf8(text.data());
}

std::optional<std::int64_t> MicrosecondsOfDmtf(std::u16string_view text) {
    if (!HasForm(text, dmtfForm)) return std::nullopt;
    const year_month_day date(year(static_cast<int>(NumberAt(text, 0, 4))), month(NumberAt(text, 4, 2)),
                              day(NumberAt(text, 6, 2)));
    const hours hour(NumberAt(text, 8, 2));
    const minutes minute(NumberAt(text, 10, 2));
    const seconds second(NumberAt(text, 12, 2));
    if (!date.ok() || hour >= days(1) || minute >= hours(1) || second >= minutes(1)) return std::nullopt;
    const Moment local = sys_days(date) + hour + minute + second + microseconds(NumberAt(text, 15, 6));
    const minutes distance(NumberAt(text, 22, 3));
    return (text[21] == u'-' ? local + distance : local - distance).time_since_epoch().count();
}

std::optional<std::int64_t> MicrosecondsOfQueryText(std::u16string_view text) {
    if (const std::optional<std::int64_t> moment = MicrosecondsOfDmtf(text)) return moment;
    const std::optional<year_month_day> date = TakeDate(text);
    if (!date || !date->ok()) return std::nullopt;
    const std::optional<microseconds> time = text.empty()           ? microseconds(0)
                                             : TakeUnit(text, u' ') ? TimeOfDay(text)
                                                                    : std::nullopt;
    if (!time) return std::nullopt;
    return MomentOfLocalTime(sys_days(*date) + *time).time_since_epoch().count();
}

}  // namespace kv::wql

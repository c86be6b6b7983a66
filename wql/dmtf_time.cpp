// Moments as DMTF texts and back.
#include <algorithm>
#include <array>
#include <chrono>
#include <cstdio>
#include <ctime>

#include "wql/cim_value.h"

namespace kv::wql {

namespace {

using namespace std::chrono;
using Moment = sys_time<microseconds>;

/// A day inside the four-digit years at either end, so that local time has four digits, too.
constexpr Moment earliest = sys_days(year(1) / 1 / 2);
constexpr Moment latest = sys_days(year(9999) / 12 / 31) - microseconds(1);

constexpr std::u16string_view offsetForm = u"dddddddddddddd.dddddd+ddd";
constexpr std::u16string_view formOfLocalTime = u"dddddddddddddd.dddddd+***";

bool HasForm(std::u16string_view text, std::u16string_view form) {
    return std::equal(text.begin(), text.end(), form.begin(), form.end(), [](char16_t unit, char16_t wanted) {
        if (wanted == u'd') return unit >= u'0' && unit <= u'9';
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
    const bool isLocalTime = HasForm(text, formOfLocalTime);
    if (!isLocalTime && !HasForm(text, offsetForm)) return std::nullopt;
    const year_month_day date(year(static_cast<int>(NumberAt(text, 0, 4))), month(NumberAt(text, 4, 2)),
                              day(NumberAt(text, 6, 2)));
    const hours hour(NumberAt(text, 8, 2));
    const minutes minute(NumberAt(text, 10, 2));
    const seconds second(NumberAt(text, 12, 2));
    if (!date.ok() || hour >= days(1) || minute >= hours(1) || second >= minutes(1)) return std::nullopt;
    const Moment local = sys_days(date) + hour + minute + second + microseconds(NumberAt(text, 15, 6));
    if (isLocalTime) return (local - OffsetAt(local - OffsetAt(local))).time_since_epoch().count();
    const minutes distance(NumberAt(text, 22, 3));
    return (text[21] == u'-' ? local + distance : local - distance).time_since_epoch().count();
}

}  // namespace kv::wql

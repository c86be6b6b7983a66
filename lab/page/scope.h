// What part of the records a view shows: a range of time and a filter, as the query of its path says them.
#pragma once

#include <string>
#include <string_view>

#include "lab/page/answer.h"
#include "lab/store/history.h"

namespace kv::lab {

inline constexpr std::int64_t minuteMilliseconds = 60'000;
inline constexpr std::int64_t hourMilliseconds = 60 * minuteMilliseconds;
inline constexpr std::int64_t dayMilliseconds = 24 * hourMilliseconds;

struct RangeChoice {
    std::string_view word;  // in a query
    std::string_view title;
    std::int64_t milliseconds;
    std::int64_t tick;  // the part of it that one tick of a strip stands for, in milliseconds
};
inline constexpr RangeChoice rangeChoices[]{{"15m", "15 minutes", 15 * minuteMilliseconds, minuteMilliseconds / 6},
                                            {"1h", "hour", hourMilliseconds, minuteMilliseconds},
                                            {"1d", "day", dayMilliseconds, 15 * minuteMilliseconds},
                                            {"1w", "week", 7 * dayMilliseconds, 2 * hourMilliseconds}};

/// What stands for an empty device or name, in texts for people and in queries.
inline constexpr std::string_view ownDevice = "(the agent itself)";
inline constexpr std::string_view unnamedRecord = "(unnamed record)";

struct Scope {
    Range range;
    const RangeChoice* choice = &rangeChoices[0];
    Filter filter;

    /// The range to ask for records of: those of clocks that run ahead belong to a range that ends now.
    Range Records() const { return {range.from, INT64_MAX}; }
};

/// From range, agent, device, name and failed; the range ends now. BadRequest when the range is not one of the choices.
Scope ScopeOf(const ServletRequest& request, std::int64_t now);

/// The query that says this scope, encoded: "?range=1h&agent=LAB1". It is not escaped for HTML.
std::string ScopeQuery(const Scope& scope);

/// The same for the records of one source.
std::string SourceQuery(const Scope& scope, const Source& source);

/// A query, encoded and perhaps empty, and the value that a plot draws.
std::string QueryWithMember(const std::string& query, std::string_view member);

/// A text as a value in a query.
std::string UrlText(std::string_view text);

/// "LAB1 · Disks", or of a device's record "PRINTER · Printer (LAB1)".
std::string SourceTitle(const Source& source);

/// The device of a source, or its agent for the agent's own records.
const std::string& Sender(const Source& source);

/// A record's name, or unnamedRecord.
std::string NameText(std::string_view name);

/// "09:05:07" of a moment.
std::string ClockText(std::int64_t time);

/// "09:05" on the day of `now`, else "4 Mar 09:05".
std::string MinuteText(std::int64_t time, std::int64_t now);

}  // namespace kv::lab

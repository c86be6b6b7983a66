// Times, durations and sizes as people read them.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace kv::control {

/// "2026-11-26 18:49:10" in local time; "never" for 0. Times are seconds since 1970.
std::string TimeText(std::int64_t time);

/// The same, with how long ago it was: "... (3 minutes ago)". A time of the future has no age.
std::string TimeWithAge(std::int64_t time, std::int64_t now);

/// Seconds by which a time may be ahead: it may come from a moment after the look at the clock.
inline constexpr std::int64_t futureTolerance = 60;

/// "45 seconds", "3 minutes", "2 h 5 min", "3 days".
std::string DurationText(std::int64_t seconds);

/// "512 bytes", "12.3 kB", "4.0 GB", in powers of 1000.
std::string SizeText(std::uint64_t bytes);

/// "1 zip", "2 zips".
std::string Counted(std::uint64_t number, std::string_view what);

}  // namespace kv::control

// The kernel's counts of events in the whole system, from files of proc(5).
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string_view>

namespace kv::facts {

/// The number that follows a name at the start of a line, as in /proc/stat and /proc/vmstat.
std::optional<std::uint64_t> NumberUnder(std::string_view text, std::string_view name);

/// Sums of the columns of /proc/interrupts or /proc/softirqs by the processors' numbers. Lines with fewer columns,
/// which count errors of the computer as a whole, are left out, but for a single processor are not told apart.
std::map<std::uint32_t, std::uint64_t> SumByProcessor(std::string_view text);

/// The number of threads of all processes, from /proc/loadavg.
std::optional<std::uint64_t> ParseThreadCount(std::string_view text);

}  // namespace kv::facts

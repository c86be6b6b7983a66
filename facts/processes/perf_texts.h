// The kernel's counts of events in the whole system, from texts of proc(5).
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string_view>

namespace kv::facts {

/// The number after a name that starts a line, as in /proc/stat and /proc/vmstat; absent when there is no such line, or
/// no number after the name.
std::optional<std::uint64_t> NumberUnder(std::string_view text, std::string_view name);

/// Sums of the columns of /proc/interrupts or /proc/softirqs, by processor number. Lines with fewer columns, which
/// count errors of the computer as a whole, are left out. With a single processor they look like all others and are
/// counted.
std::map<std::uint32_t, std::uint64_t> SumByProcessor(std::string_view text);

/// The same of the clock's interrupts alone: the lines of /proc/interrupts about the processors' own timers.
std::map<std::uint32_t, std::uint64_t> TimerInterruptsByProcessor(std::string_view interrupts);

/// The number of threads of all processes, from /proc/loadavg; absent when the text has another form.
std::optional<std::uint64_t> ParseThreadCount(std::string_view text);

}  // namespace kv::facts

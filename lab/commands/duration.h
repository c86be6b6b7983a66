// Lengths of time on the command line.
#pragma once

#include <cstdint>
#include <string>

namespace kv::lab {

/// Milliseconds of "90s", "15m", "2h", "7d" or "4w". UsageError, which names the option, for other texts and for 0.
std::int64_t DurationOf(const std::string& option, const std::string& text);

/// The same; 0 for other texts.
std::int64_t MillisecondsIn(const std::string& text);

}  // namespace kv::lab

// Moments on the command line.
#pragma once

#include <cstdint>
#include <string>

namespace kv::lab {

/// Milliseconds since 1970 of a moment: so long before now, "15m", "2h" or "7d", or a time in UTC, "2026-11-27",
/// "2026-11-27 12:00" or "2026-11-27T12:00:05Z"; "13:10" is the last time when it was 13:10. UsageError, which names
/// the option, for other texts.
std::int64_t MomentOf(const std::string& option, const std::string& text, std::int64_t now);

}  // namespace kv::lab

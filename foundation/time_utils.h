// Time as the agent writes and counts it; all of it comes from the platform's clock.
#pragma once

#include <cstdint>

namespace kv {

/// "HH:MM:SS" of local time. With flag 1 in 24-hour form, which all callers use; with flag 0 hours above 12 lose 12 and
/// " pm" follows every time. The buffer belongs to the calling thread and holds until its next call.
const char* GetTimeString(int flag);

/// "DD-MM-YY" of local time; the buffer belongs to the calling thread.
const char* GetCurrDateString();

/// The tens and units digits; the buffer belongs to the calling thread.
const char* FormatTwoDigits(int number);

/// Whole seconds since 1970.
std::int64_t GetNowSeconds();

/// Stores the present time as the base of GetUpTimeSeconds.
void GetAgentStartUpTime();

/// Seconds since the base, times 100 if flag is 1; since 1970 before a base is stored.
std::int64_t GetUpTimeSeconds(int flag);

}  // namespace kv

// Time as the agent writes and counts it, all of it from the platform's clock. Callable from any thread.
#pragma once

#include <cstdint>

namespace kv {

/// "HH:MM:SS" of local time. All callers use flag 1, the 24-hour form; with any other flag, hours above 12 lose 12, and
/// " pm" follows every time. The buffer belongs to the calling thread and holds until its next call.
const char* GetTimeString(int flag);

/// "DD-MM-YY" of local time; the same holds for its buffer.
const char* GetCurrDateString();

/// The last two digits of a number; the same holds for its buffer.
const char* FormatTwoDigits(int number);

/// Whole seconds since 1970.
std::int64_t GetNowSeconds();

/// Makes the present time the base of GetUpTimeSeconds.
void GetAgentStartUpTime();

/// Seconds since the base, or since 1970 before there is one; times 100 when flag is 1.
std::int64_t GetUpTimeSeconds(int flag);

}  // namespace kv

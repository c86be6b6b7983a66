// Turns the merged configuration into gv_sortVec, the flat list of all workflow entries, and gives each entry one
// repeating timer.
#pragma once

#include <cstdint>

namespace kv {

/// Brings up the timer manager and its thread. Called once.
void initializeScheduler();

/// Builds gv_sortVec again and adds all timers, each due at once. An exception costs one entry its timer.
void scheduleQueryHashData();

/// Adds the timer of one entry, every interval minutes; 1, or -1 when memory ran out.
int AddSchedule(std::int32_t index, std::int32_t interval);

}  // namespace kv

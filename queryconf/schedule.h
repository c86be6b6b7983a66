// Turns the merged configuration into gv_sortVec, the flat list of all workflow entries, and gives each entry one timer
// that repeats.
#pragma once

#include <cstdint>

namespace kv {

/// Brings up the timer and its thread. Called once.
void initializeScheduler();

/// Builds gv_sortVec and adds all timers, each due at once. The caller has removed all timers from before, and needs
/// nothing that gv_sortVec owns. A std::exception costs one entry its timer, with a log line; without a plan nothing is
/// scheduled.
void scheduleQueryHashData();

/// Adds the timer of the entry at an index, due now and every `interval` minutes. 1, or -1 when the interval is below
/// 1, with a log line, and when memory ran out.
int AddSchedule(std::int32_t index, std::int32_t interval);

}  // namespace kv

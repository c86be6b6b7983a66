#include "queryconf/schedule.h"

#include <algorithm>
#include <limits>
#include <memory>
#include <new>
#include <utility>

#include "collection/collect.h"
#include "foundation/agent_state.h"
#include "foundation/guarded.h"
#include "foundation/log.h"
#include "foundation/time_utils.h"
#include "foundation/timer.h"
#include "jsontext/hash_json.h"

namespace kv {

namespace {

/// Own workflows first, then each slave's: the order of the keys. The loader lets in nothing but lists of entries.
void MergeAllWorkflows(const HashTable* plan, Vector* merged) {
    const std::unique_ptr<const char16_t*[]> keys = GetHashKeys(plan);
    for (std::size_t index = 0; keys[index]; ++index) {
        if (Vector* workflows = GetHashVector(plan, keys[index])) MergeVector(merged, workflows);
    }
}

/// Null when memory ran out. A period of more seconds than 32 bits hold becomes the longest one.
std::unique_ptr<TimerSchedule> RepeatEveryMinutes(std::int32_t minutes) {
    std::unique_ptr<TimerSchedule> schedule(new (std::nothrow) TimerSchedule{});
    const std::int64_t seconds = std::int64_t{minutes} * 60;
    constexpr std::int64_t longest = std::numeric_limits<std::uint32_t>::max();
    if (schedule) schedule->detail.interval = static_cast<std::uint32_t>(std::min(seconds, longest));
    return schedule;
}

void ScheduleEntry(const VectorElement& element, std::int32_t index) {
    const auto* entry = reinterpret_cast<const HashTable*>(element.value);
    if (LogsAtLeast(2)) Log2("\t scheduleQueryHashData :: Inside for loop : queryInfo: %s\n", HashToJSONString(entry));
    AddSchedule(index, static_cast<std::int32_t>(GetHashValue(entry, u"interval")));
}

}  // namespace

void initializeScheduler() {
    Log3("\t Inside initializeScheduler() \n");
    InitTimerManager();
    StartTimerThread();
}

void scheduleQueryHashData() {
    Log3("\t Inside scheduleQueryHashData() \n");
    if (!agentState.gv_queryConfHash) {
        Log1("\t scheduleQueryHashData is NULL \n");
        return;
    }
    // All timers are added between two passes: a pass in between would run the first ones, and the rest would wait for
    // their scripts.
    const TimerLock lock;
    agentState.gv_sortVec = nullptr;
    VectorPtr merged = MakeVector();
    if (!merged) {
        Log1("\t scheduleQueryHashData :: out of memory, nothing is scheduled \n");
        return;
    }
    MergeAllWorkflows(agentState.gv_queryConfHash, merged.get());
    agentState.gv_sortVec = merged.release();
    Log2("\t scheduleQueryHashData :: query conf - gv_sortVec size: [%d]\n", agentState.gv_sortVec->count);
    std::int32_t index = 0;
    for (const VectorElement* element = agentState.gv_sortVec->head; element; element = element->next, ++index)
        RunGuarded("scheduleQueryHashData", [element, index] { ScheduleEntry(*element, index); });
}

int AddSchedule(std::int32_t index, std::int32_t interval) {
    Log3("\t Inside AddSchedule() \n");
    if (interval < 1) {
        Log1("\t AddSchedule :: the interval of index [%d] is [%d], below 1: it is not scheduled \n", index, interval);
        return -1;
    }
    std::unique_ptr<TimerSchedule> schedule = RepeatEveryMinutes(interval);
    std::unique_ptr<std::int32_t> argument(new (std::nothrow) std::int32_t(index));
    if (!schedule || !argument) return -1;
    const auto now = static_cast<std::uint32_t>(GetNowSeconds());
    Log2(" Adding Schedule for index [%d], interval [%d] \n", index, interval);
    const std::uint32_t id =
        AddTimerTask(std::nullopt, now, CollectAndSaveData, std::move(argument), std::move(schedule), 0);
    return id == 0 ? -1 : 1;
}

}  // namespace kv

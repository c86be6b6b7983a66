// Named timers: lists of entries sorted by the time they are due, and the one thread that runs what is due, once a
// second. All collection runs on that thread, under gv_timerMutex.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "foundation/text.h"
#include "foundation/vector.h"
#include "platform/threads.h"

namespace kv {

using TimerCallback = void (*)(void* argument);

enum class TimerUnit : std::uint16_t { hours = 1, minutes = 2, seconds = 3 };

struct TimerInterval {
    std::int32_t* endTime = nullptr;  // always none
    std::uint32_t interval = 0;       // in units
    TimerUnit unit = TimerUnit::seconds;
    std::int32_t repeatCount = -1;  // -1 forever, 1 this run is the last, more counts down
};

struct TimerSchedule {
    std::int32_t kind = 1;  // 1: repeat at an interval
    TimerInterval detail;
};

struct TimerEntry {
    std::u16string name;     // of its timer
    std::uint32_t fireTime;  // seconds since 1970
    TimerCallback callback;
    std::int32_t* argument;  // owned by the job
    std::uint32_t id;
    TimerSchedule* schedule;  // shared by the successive entries of one job
    TimerEntry* next;
    TimerEntry* prev;
};

struct TimerList {
    std::u16string name;
    std::int16_t priority = 1;  // never read
    TimerEntry* head = nullptr;
    TimerEntry* tail = nullptr;
    std::uint32_t nextId = 1;
};

/// The timer manager of this process.
struct TimerManager {
    Vector gv_timerVec{};                     // of TimerList, set up once; the lists change under gv_timerMutex only
    platform::MutexHandle gv_timerMutex = 0;  // held for a whole pass, callbacks included
    void (*gv_timerExpireHook)(void*) = nullptr;  // a slot that nothing fills
    std::uint32_t lastPass = 0;                   // when the last pass began, seconds since 1970; 0 before the first
};

extern TimerManager timerManager;

/// Holds gv_timerMutex for the life of this object. The thread that holds it may take it again.
class TimerLock {
  public:
    TimerLock();
    ~TimerLock();
    TimerLock(const TimerLock&) = delete;
    TimerLock& operator=(const TimerLock&) = delete;
};

/// Sets up the timer "DEFAULT"; 1. A second call, with no timer thread running, starts over with no jobs.
int InitTimerManager();

/// A new, empty timer.
void CreateTimer(std::u16string_view name, std::int16_t priority);

void StartTimerThread();

/// The thread's body: a pass, a second's sleep, forever.
std::uint32_t TimerThread(void* ignored);

/// Adds a job to a timer, "DEFAULT" when the name is absent; an id of 0 asks for a new one. Its id, or 0 when no timer
/// has that name or memory ran out: argument and schedule are then freed. Waits for a pass in progress, unless the
/// pass's own thread calls.
[[nodiscard]] std::uint32_t AddTimerTask(const OptionalText& timerName, std::uint32_t fireTime, TimerCallback callback,
                                         std::unique_ptr<std::int32_t> argument,
                                         std::unique_ptr<TimerSchedule> schedule, std::uint32_t id);

/// Links an entry into a timer's list, behind those due at the same time; its id, or 0 when no timer has that name. The
/// caller holds gv_timerMutex, here and in RemoveTimerEntry.
std::uint32_t AddTimerEntry(std::u16string_view timerName, TimerEntry* entry);

/// Unlinks an entry, frees nothing.
void RemoveTimerEntry(std::u16string_view timerName, TimerEntry* entry);

/// Removes and frees all entries of a timer with their arguments, after a pass in progress has ended; 1, or 0 when no
/// timer has that name.
int DeleteTimerEntryByName(const OptionalText& timerName);

/// One pass: runs every entry that is due, in order of due time, and arms it again from the time the pass began. A
/// period of 0 counts as one second. What is armed in a pass does not run in it, so a pass ends whatever the clock
/// says.
///
/// When the clock stands before the last pass, as one that was set back does, all fire times move by the difference,
/// with a log line: nothing waits for the former time to come again.
void CheckTimers();

}  // namespace kv

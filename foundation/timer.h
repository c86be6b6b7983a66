// Named timers: lists of entries sorted by the time at which they are due, and the one thread that runs what is due,
// once a second, under gv_timerMutex. A job that takes long delays those behind it.
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
    std::int32_t* endTime = nullptr;  // always null
    std::uint32_t interval = 0;       // in units
    TimerUnit unit = TimerUnit::seconds;
    std::int32_t repeatCount = -1;  // -1: forever; 1: this run is the last; more counts down
};

struct TimerSchedule {
    std::int32_t kind = 1;  // always 1: repeat at an interval
    TimerInterval detail;
};

struct TimerEntry {
    std::u16string name;     // of its timer
    std::uint32_t fireTime;  // seconds since 1970
    TimerCallback callback;
    std::int32_t* argument;  // the job owns it
    std::uint32_t id;
    TimerSchedule* schedule;  // successive entries of one job share it
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
    Vector gv_timerVec{};                     // of TimerList, set up once; the lists only change under gv_timerMutex
    platform::MutexHandle gv_timerMutex = 0;  // held for a whole pass, callbacks included
    void (*gv_timerExpireHook)(void*) = nullptr;  // a slot that nothing fills
    std::uint32_t lastPass = 0;                   // when the last pass began, seconds since 1970; 0 before the first
};

extern TimerManager timerManager;

/// Holds gv_timerMutex while it lives. The thread that holds it may take it again.
class TimerLock {
  public:
    TimerLock();
    ~TimerLock();
    TimerLock(const TimerLock&) = delete;
    TimerLock& operator=(const TimerLock&) = delete;
};

/// Sets up the timer "DEFAULT"; 1. A second call, which no timer thread may see, starts over without jobs.
int InitTimerManager();

/// Makes a new, empty timer. No timer thread runs yet.
void CreateTimer(std::u16string_view name, std::int16_t priority);

/// Starts TimerThread; a log line says when it cannot be started.
void StartTimerThread();

/// The thread's body: a pass and a second's sleep, forever.
std::uint32_t TimerThread(void* ignored);

/// Adds a job to a timer, "DEFAULT" when the name is absent; an id of 0 asks for a new one. Its id, or 0 when no timer
/// has that name or memory ran out: argument and schedule are then freed. Waits for a pass in progress, unless the
/// pass's own thread calls.
[[nodiscard]] std::uint32_t AddTimerTask(const OptionalText& timerName, std::uint32_t fireTime, TimerCallback callback,
                                         std::unique_ptr<std::int32_t> argument,
                                         std::unique_ptr<TimerSchedule> schedule, std::uint32_t id);

/// Links an entry into a timer's list, behind those due at the same time. Its id, or 0 when no timer has that name: the
/// entry then stays the caller's. The caller holds gv_timerMutex, here and for RemoveTimerEntry.
std::uint32_t AddTimerEntry(std::u16string_view timerName, TimerEntry* entry);

/// Unlinks an entry, which becomes the caller's. Frees nothing.
void RemoveTimerEntry(std::u16string_view timerName, TimerEntry* entry);

/// Waits for a pass in progress, then removes and frees all entries of a timer with their arguments; their schedules
/// stay allocated. 1, or 0 when the name is absent or no timer has it.
int DeleteTimerEntryByName(const OptionalText& timerName);

/// One pass: runs every entry that is due, in order of due time, and arms it again, counted from the start of the pass.
/// A period of 0 counts as one second. What is armed in a pass does not run in it, so that a pass ends whatever the
/// clock says. A std::exception ends one run of a job, with a log line.
///
/// When the clock stands before the last pass, because it was set back, all fire times move by the difference, with a
/// log line: nothing waits for the former time to come again.
void CheckTimers();

}  // namespace kv

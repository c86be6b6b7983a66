#include "foundation/timer.h"

#include <algorithm>
#include <limits>
#include <memory>
#include <new>
#include <utility>

#include "foundation/guarded.h"
#include "foundation/log.h"
#include "foundation/thread_pool.h"
#include "foundation/time_utils.h"
#include "platform/clock.h"

namespace kv {

TimerManager timerManager;

namespace {

constexpr std::u16string_view defaultTimer = u"DEFAULT";

TimerList* TimerAt(std::int32_t index) {
    const VectorElement* element = ElementAt(&timerManager.gv_timerVec, index);
    return element ? reinterpret_cast<TimerList*>(element->value) : nullptr;
}

TimerList* FindTimer(std::u16string_view name) {
    for (std::int32_t index = 0; index < timerManager.gv_timerVec.count; ++index) {
        TimerList* list = TimerAt(index);
        if (list && list->name == name) return list;
    }
    return nullptr;
}

void Unlink(TimerList& list, TimerEntry* entry) {
    if (entry == list.tail) list.tail = entry->prev;
    if (entry == list.head) {
        list.head = entry->next;
        if (list.head) list.head->prev = nullptr;
    } else if (!entry->next && entry->prev) {
        entry->prev->next = nullptr;
    } else {
        // A list that lacks a link here is corrupt: the line says so, and nothing is stored through a null link.
        if (!entry->prev) Log2("CRASH BECAUSE OF BUFPTR->PREV is NULL>>>>>>>>>>>>");
        if (!entry->next) Log2("CRASH BECAUSE OF TMPPTR is NULL>>>>>>>>>>>>>>>>>>>>>>>");
        if (entry->next) entry->next->prev = entry->prev;
        if (entry->prev) entry->prev->next = entry->next;
    }
}

void Link(TimerList& list, TimerEntry* entry) {
    // From the end: many jobs are added in one second, and most are due again behind all others.
    TimerEntry* before = list.tail;
    while (before && before->fireTime > entry->fireTime) before = before->prev;
    TimerEntry* after = before ? before->next : list.head;
    entry->prev = before;
    entry->next = after;
    (before ? before->next : list.head) = entry;
    (after ? after->prev : list.tail) = entry;
}

std::uint32_t PeriodSeconds(const TimerInterval& interval) {
    std::uint64_t seconds = interval.interval;
    if (interval.unit == TimerUnit::hours) seconds *= 3600;
    if (interval.unit == TimerUnit::minutes) seconds *= 60;
    // A period of 0 would make the job due again at once, and the pass would never end.
    return static_cast<std::uint32_t>(std::clamp<std::uint64_t>(seconds, 1, std::numeric_limits<std::uint32_t>::max()));
}

/// The moment that is a period after now, or the last moment of 32 bits when that is earlier.
std::uint32_t MomentAfter(std::uint32_t now, std::uint32_t period) {
    return now + std::min(period, std::numeric_limits<std::uint32_t>::max() - now);
}

std::uint32_t NowInSeconds() { return static_cast<std::uint32_t>(GetNowSeconds()); }

/// Keeps the order. What would be due before 1970 is due at once.
void MoveFireTimes(TimerList& list, std::uint32_t seconds) {
    for (TimerEntry* entry = list.head; entry; entry = entry->next)
        entry->fireTime -= std::min(entry->fireTime, seconds);
}

/// Serves, too, when a clock that jumped ahead comes back: what ran meanwhile was armed far in the future.
void FollowClockSetBack(std::uint32_t now) {
    const std::uint32_t lastPass = std::exchange(timerManager.lastPass, now);
    if (now >= lastPass) return;
    Log1("\t CheckTimers :: the clock was set back by %u seconds: all fire times move with it \n", lastPass - now);
    for (std::int32_t index = 0; index < timerManager.gv_timerVec.count; ++index) {
        if (TimerList* list = TimerAt(index)) MoveFireTimes(*list, lastPass - now);
    }
}

void FreeJob(const TimerEntry& entry) {
    delete entry.schedule;
    delete entry.argument;
}

/// Puts the job of an entry that has just run back into its list. now is when the pass began, so a job that outlasts
/// its period is due again in the very next pass.
void Rearm(const TimerList& list, const TimerEntry& entry, std::uint32_t now) {
    TimerInterval& interval = entry.schedule->detail;
    if (interval.repeatCount > 1) --interval.repeatCount;
    const std::uint32_t fireTime = MomentAfter(now, PeriodSeconds(interval));
    if (AddTimerTask(list.name, fireTime, entry.callback, std::unique_ptr<std::int32_t>(entry.argument),
                     std::unique_ptr<TimerSchedule>(entry.schedule), entry.id) == 0)
        Log1("\t CheckTimers :: the job [%d] cannot be armed again and ends here \n", entry.id);
}

/// How many entries are due, all at the head of the list.
std::size_t CountDueEntries(const TimerList& list, std::uint32_t now) {
    std::size_t due = 0;
    for (const TimerEntry* entry = list.head; entry && entry->fireTime <= now; entry = entry->next) ++due;
    return due;
}

void RunDueEntries(TimerList& list) {
    const std::uint32_t now = NowInSeconds();
    // Counted before the first one runs: in the last second of 32 bits, what is armed again is due at once, behind
    // these.
    for (std::size_t due = CountDueEntries(list, now); due > 0 && list.head; --due) {
        TimerEntry* entry = list.head;
        RunGuarded("CheckTimers", [entry] { entry->callback(entry->argument); });
        if (entry->schedule->detail.repeatCount == 1) {
            FreeJob(*entry);
        } else {
            Rearm(list, *entry, now);
        }
        Unlink(list, entry);
        delete entry;
    }
}

/// Removes all entries and their arguments. The schedules stay allocated. That is intended: someone may still hold the
/// schedule of a job, and lists are emptied only a few times in the life of the process.
void RemoveAllEntries(TimerList& list) {
    while (TimerEntry* entry = list.head) {
        Unlink(list, entry);
        delete entry->argument;
        delete entry;
    }
}

}  // namespace

TimerLock::TimerLock() { platform::Threads().WaitForMutex(timerManager.gv_timerMutex); }

TimerLock::~TimerLock() { platform::Threads().ReleaseMutex(timerManager.gv_timerMutex); }

int InitTimerManager() {
    Log3("\t@@@@@ Inside InitTimerManager() @@@@@ \n");
    while (TimerList* list = TimerAt(0)) {
        RemoveAllEntries(*list);
        delete list;
        DeleteElementAt(&timerManager.gv_timerVec, 0);
    }
    InitVector(&timerManager.gv_timerVec, nullptr);
    CreateTimer(defaultTimer, 1);
    timerManager.gv_timerExpireHook = nullptr;
    timerManager.lastPass = 0;
    if (timerManager.gv_timerMutex == 0) timerManager.gv_timerMutex = platform::Threads().CreateMutexW();
    return 1;
}

void CreateTimer(std::u16string_view name, std::int16_t priority) {
    Log3("\t@@@@@ Inside CreateTimer() @@@@@ \n");
    auto list = std::make_unique<TimerList>();
    list->name = name;
    list->priority = priority;
    auto element = std::make_unique<VectorElement>();
    element->value = reinterpret_cast<Word>(list.release());
    AddElement(&timerManager.gv_timerVec, std::move(element));
}

void StartTimerThread() {
    Log3("\t@@@@@ Inside StartTimerThread() @@@@@ \n");
    CreateNewThread_MSP(TimerThread, nullptr);
}

std::uint32_t TimerThread(void* /*ignored*/) {
    Log3("\t@@@@@ Inside TimerThread() @@@@@ \n");
    while (true) {
        CheckTimers();
        platform::Clock().Sleep(1000);
    }
}

std::uint32_t AddTimerTask(const OptionalText& timerName, std::uint32_t fireTime, TimerCallback callback,
                           std::unique_ptr<std::int32_t> argument, std::unique_ptr<TimerSchedule> schedule,
                           std::uint32_t id) {
    Log4("\t@@@@@ Inside AddTimerTask() @@@@@ \n");
    const std::u16string_view name = timerName ? std::u16string_view(*timerName) : defaultTimer;
    if (!FindTimer(name)) return 0;
    std::unique_ptr<TimerEntry> entry(new (std::nothrow) TimerEntry{});
    if (!entry) return 0;
    entry->name = name;
    entry->fireTime = fireTime;
    entry->callback = callback;
    entry->id = id;
    const TimerLock lock;
    entry->argument = argument.release();
    entry->schedule = schedule.release();
    return AddTimerEntry(name, entry.release());
}

std::uint32_t AddTimerEntry(std::u16string_view timerName, TimerEntry* entry) {
    Log4("\t@@@@@ Inside AddTimerEntry() @@@@@ \n");
    TimerList* list = FindTimer(timerName);
    if (!list) return 0;
    entry->name = timerName;
    Link(*list, entry);
    if (entry->id == 0) entry->id = list->nextId++;
    return entry->id;
}

void RemoveTimerEntry(std::u16string_view timerName, TimerEntry* entry) {
    Log4("\t@@@@@ Inside RemoveTimerEntry() @@@@@ \n");
    if (TimerList* list = FindTimer(timerName)) Unlink(*list, entry);
}

int DeleteTimerEntryByName(const OptionalText& timerName) {
    Log3("\t@@@@@ Inside DeleteTimerEntryByName() @@@@@ \n");
    TimerList* list = timerName ? FindTimer(*timerName) : nullptr;
    if (!list) return 0;
    const TimerLock lock;
    RemoveAllEntries(*list);
    return 1;
}

void CheckTimers() {
    Log4("\t@@@@@ Inside CheckTimers() @@@@@ \n");
    if (timerManager.gv_timerVec.count == 0) return;
    const TimerLock lock;
    FollowClockSetBack(NowInSeconds());
    for (std::int32_t index = 0; index < timerManager.gv_timerVec.count; ++index) {
        if (TimerList* list = TimerAt(index)) RunDueEntries(*list);
    }
}

}  // namespace kv

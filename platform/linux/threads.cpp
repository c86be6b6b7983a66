#include <atomic>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <new>
#include <system_error>
#include <thread>

#include "platform/linux/linux.h"

namespace platform {

namespace {

/// Something that happens, and what waits for it.
class Occurrence {
  public:
    /// Notifies under the lock, because whoever has seen it happen may destroy this object at once.
    void Happen() {
        const std::lock_guard hold(lock_);
        happened_ = true;
        told_.notify_all();
    }

    void Forget() {
        const std::lock_guard hold(lock_);
        happened_ = false;
    }

    Error Wait(std::uint32_t milliseconds) {
        std::unique_lock hold(lock_);
        const auto hasHappened = [this] { return happened_; };
        if (milliseconds != infinite) {
            const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(milliseconds);
            return told_.wait_until(hold, deadline, hasHappened) ? error::success : error::waitTimeout;
        }
        told_.wait(hold, hasHappened);
        return error::success;
    }

  private:
    std::mutex lock_;
    std::condition_variable told_;
    bool happened_ = false;
};

/// A thread as its handle shows it: the permit that SuspendThread waits for and ResumeThread gives, and its end.
struct ThreadRecord {
    std::atomic<bool> mayRun{false};
    Occurrence ended;
};

/// All threads ever started. Handles are never closed, so the records and the list are never freed.
struct StartedThreads {
    std::mutex lock;
    std::deque<ThreadRecord> records;
};

StartedThreads& Started() {
    static auto* const started = new StartedThreads;
    return *started;
}

ThreadRecord& RecordOf(ThreadHandle thread) { return *reinterpret_cast<ThreadRecord*>(thread); }

std::recursive_mutex* MutexOf(MutexHandle mutex) { return reinterpret_cast<std::recursive_mutex*>(mutex); }

Occurrence* EventOf(EventHandle event) { return reinterpret_cast<Occurrence*>(event); }

void RunThread(ThreadStart start, void* argument, ThreadRecord* record) {
    start(argument);
    record->ended.Happen();
}

ThreadHandle CreateThread(ThreadStart start, void* argument) {
    const std::lock_guard hold(Started().lock);
    std::deque<ThreadRecord>& records = Started().records;
    const std::size_t before = records.size();
    try {
        ThreadRecord& record = records.emplace_back();
        std::thread(RunThread, start, argument, &record).detach();
        return reinterpret_cast<ThreadHandle>(&record);
    } catch (const std::exception&) {  // no thread, or no memory
        if (records.size() > before) records.pop_back();
        return 0;
    }
}

void SuspendThread(ThreadHandle self) {
    if (self == 0) return;
    std::atomic<bool>& mayRun = RecordOf(self).mayRun;
    while (!mayRun.exchange(false)) mayRun.wait(false);
}

void ResumeThread(ThreadHandle thread) {
    if (thread == 0) return;
    std::atomic<bool>& mayRun = RecordOf(thread).mayRun;
    mayRun.store(true);
    mayRun.notify_one();
}

Error WaitForThread(ThreadHandle thread, std::uint32_t milliseconds) {
    return thread == 0 ? error::invalidHandle : RecordOf(thread).ended.Wait(milliseconds);
}

Error CreateEventW(EventHandle& event) {
    event = reinterpret_cast<EventHandle>(new (std::nothrow) Occurrence);
    return event == 0 ? error::notEnoughMemory : error::success;
}

void SetEvent(EventHandle event) {
    if (event != 0) EventOf(event)->Happen();
}

void ResetEvent(EventHandle event) {
    if (event != 0) EventOf(event)->Forget();
}

Error WaitForEvent(EventHandle event, std::uint32_t milliseconds) {
    return event == 0 ? error::invalidHandle : EventOf(event)->Wait(milliseconds);
}

}  // namespace

ThreadOperations LinuxThreads() {
    return {
        .CreateThread = CreateThread,
        .SuspendThread = SuspendThread,
        .ResumeThread = ResumeThread,
        .WaitForThread = WaitForThread,
        .CreateMutexW = [] { return reinterpret_cast<MutexHandle>(new std::recursive_mutex); },
        .WaitForMutex = [](MutexHandle mutex) { MutexOf(mutex)->lock(); },
        .ReleaseMutex = [](MutexHandle mutex) { MutexOf(mutex)->unlock(); },
        .CloseMutex = [](MutexHandle mutex) { delete MutexOf(mutex); },
        .CreateEventW = CreateEventW,
        .SetEvent = SetEvent,
        .ResetEvent = ResetEvent,
        .WaitForEvent = WaitForEvent,
        .CloseEvent = [](EventHandle event) { delete EventOf(event); },
    };
}

}  // namespace platform

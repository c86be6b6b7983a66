#include <atomic>
#include <deque>
#include <mutex>
#include <system_error>
#include <thread>

#include "platform/posix/posix.h"

namespace platform {

namespace {

/// A thread as its handle shows it: the permit that SuspendThread waits for and ResumeThread gives.
struct ThreadRecord {
    std::atomic<bool> mayRun{false};
};

/// All threads ever started. Handles are never closed, so neither the records nor the list are released.
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

ThreadHandle CreateThread(ThreadStart start, void* argument) {
    const std::lock_guard hold(Started().lock);
    std::deque<ThreadRecord>& records = Started().records;
    const std::size_t before = records.size();
    try {
        ThreadRecord& record = records.emplace_back();
        std::thread(start, argument).detach();
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

}  // namespace

ThreadOperations PosixThreads() {
    return {
        .CreateThread = CreateThread,
        .SuspendThread = SuspendThread,
        .ResumeThread = ResumeThread,
        .WaitForThread = {},
        .CreateMutexW = [] { return reinterpret_cast<MutexHandle>(new std::recursive_mutex); },
        .WaitForMutex = [](MutexHandle mutex) { MutexOf(mutex)->lock(); },
        .ReleaseMutex = [](MutexHandle mutex) { MutexOf(mutex)->unlock(); },
        .CloseMutex = [](MutexHandle mutex) { delete MutexOf(mutex); },
        .CreateEventW = {},
        .SetEvent = {},
        .WaitForEvent = {},
        .CloseEvent = {},
    };
}

}  // namespace platform

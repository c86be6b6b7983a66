#include <memory>
#include <new>

#include "platform/windows/system_handle.h"
#include "platform/windows/win32.h"

// After the system's main header, which it needs.
#include <process.h>

namespace platform {

namespace {

/// A thread as its handle shows it: the system's handle, and the permit that SuspendThread waits for and ResumeThread
/// gives. The system's own pair would lose a resume that comes first.
struct ThreadRecord {
    ThreadStart start = nullptr;
    void* argument = nullptr;
    SystemHandle permit;
    SystemHandle thread;
};

ThreadRecord& RecordOf(ThreadHandle thread) { return *reinterpret_cast<ThreadRecord*>(thread); }

CRITICAL_SECTION* MutexOf(MutexHandle mutex) { return reinterpret_cast<CRITICAL_SECTION*>(mutex); }

HANDLE EventOf(EventHandle event) { return reinterpret_cast<HANDLE>(event); }

Error WaitForObject(HANDLE object, std::uint32_t milliseconds) {
    switch (::WaitForSingleObject(object, milliseconds)) {
        case WAIT_OBJECT_0:
            return error::success;
        case WAIT_TIMEOUT:
            return error::waitTimeout;
        default:
            return LastError();
    }
}

unsigned __stdcall RunThread(void* itself) {
    const auto& record = *static_cast<const ThreadRecord*>(itself);
    return record.start(record.argument);
}

/// The record of a started thread is never freed, because its handle is never closed.
ThreadHandle CreateThread(ThreadStart start, void* argument) {
    std::unique_ptr<ThreadRecord> record(new (std::nothrow) ThreadRecord{start, argument, {}, {}});
    if (!record) return 0;
    record->permit = SystemHandle(::CreateEventW(nullptr, FALSE, FALSE, nullptr));
    if (!record->permit) return 0;
    // Through the C library, which has state of its own for each thread.
    record->thread =
        SystemHandle(reinterpret_cast<HANDLE>(_beginthreadex(nullptr, 0, RunThread, record.get(), 0, nullptr)));
    return record->thread ? reinterpret_cast<ThreadHandle>(record.release()) : 0;
}

void SuspendThread(ThreadHandle self) {
    if (self != 0) ::WaitForSingleObject(RecordOf(self).permit.get(), INFINITE);
}

void ResumeThread(ThreadHandle thread) {
    if (thread != 0) ::SetEvent(RecordOf(thread).permit.get());
}

Error WaitForThread(ThreadHandle thread, std::uint32_t milliseconds) {
    return thread == 0 ? error::invalidHandle : WaitForObject(RecordOf(thread).thread.get(), milliseconds);
}

MutexHandle CreateMutexW() {
    auto* const section = new CRITICAL_SECTION;
    ::InitializeCriticalSection(section);
    return reinterpret_cast<MutexHandle>(section);
}

void CloseMutex(MutexHandle mutex) {
    if (mutex == 0) return;
    ::DeleteCriticalSection(MutexOf(mutex));
    delete MutexOf(mutex);
}

Error CreateEventW(EventHandle& event) {
    event = reinterpret_cast<EventHandle>(::CreateEventW(nullptr, TRUE, FALSE, nullptr));
    return event == 0 ? LastError() : error::success;
}

Error WaitForEvent(EventHandle event, std::uint32_t milliseconds) {
    return event == 0 ? error::invalidHandle : WaitForObject(EventOf(event), milliseconds);
}

}  // namespace

ThreadOperations WindowsThreads() {
    return {
        .CreateThread = CreateThread,
        .SuspendThread = SuspendThread,
        .ResumeThread = ResumeThread,
        .WaitForThread = WaitForThread,
        .CreateMutexW = CreateMutexW,
        .WaitForMutex = [](MutexHandle mutex) { ::EnterCriticalSection(MutexOf(mutex)); },
        .ReleaseMutex = [](MutexHandle mutex) { ::LeaveCriticalSection(MutexOf(mutex)); },
        .CloseMutex = CloseMutex,
        .CreateEventW = CreateEventW,
        .SetEvent = [](EventHandle event) { ::SetEvent(EventOf(event)); },
        .ResetEvent = [](EventHandle event) { ::ResetEvent(EventOf(event)); },
        .WaitForEvent = WaitForEvent,
        .CloseEvent = [](EventHandle event) { ::CloseHandle(EventOf(event)); },
    };
}

}  // namespace platform

// Threads, mutexes and events.
#pragma once

#include <cstdint>
#include <functional>

#include "platform/errors.h"
#include "platform/seam.h"

namespace platform {

/// What a thread runs.
using ThreadStart = std::uint32_t (*)(void* argument);

/// A started thread, or 0. Thread handles are never closed: they live as long as the process.
using ThreadHandle = std::uintptr_t;

/// A mutex that its owning thread may enter again, or 0.
using MutexHandle = std::uintptr_t;

/// An event that stays set until it is reset, or 0.
using EventHandle = std::uintptr_t;

/// In place of a number of milliseconds: waits forever.
inline constexpr std::uint32_t infinite = 0xFFFFFFFF;

struct ThreadOperations {
    /// Starts a thread at once, detached, with the default stack. 0 when it cannot be started.
    std::function<ThreadHandle(ThreadStart start, void* argument)> CreateThread;

    /// Parks the calling thread, whose handle this is, until ResumeThread. When ResumeThread came first, it returns at
    /// once. Both do nothing for 0.
    std::function<void(ThreadHandle self)> SuspendThread;
    std::function<void(ThreadHandle thread)> ResumeThread;

    /// Waits until the thread has ended; waitTimeout when the time is over first, invalidHandle for 0.
    std::function<Error(ThreadHandle thread, std::uint32_t milliseconds)> WaitForThread;

    /// A new mutex that no one owns; lives until CloseMutex. Never 0: throws std::bad_alloc when memory has run out.
    /// The three below take no other value.
    std::function<MutexHandle()> CreateMutexW;
    std::function<void(MutexHandle mutex)> WaitForMutex;
    std::function<void(MutexHandle mutex)> ReleaseMutex;
    std::function<void(MutexHandle mutex)> CloseMutex;

    /// A new event that is not set; lives until CloseEvent, which may be called when nobody waits for it or sets it any
    /// more.
    std::function<Error(EventHandle& event)> CreateEventW;
    std::function<void(EventHandle event)> SetEvent;
    std::function<void(EventHandle event)> ResetEvent;
    /// Waits until the event is set; waitTimeout when the time is over first, invalidHandle for 0.
    std::function<Error(EventHandle event, std::uint32_t milliseconds)> WaitForEvent;
    std::function<void(EventHandle event)> CloseEvent;
};

inline const ThreadOperations& Threads() { return CurrentOperations<ThreadOperations>(); }

}  // namespace platform

// Threads and mutexes.
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

struct ThreadOperations {
    /// Starts a thread at once, detached, with the default stack. 0 when it cannot be started.
    std::function<ThreadHandle(ThreadStart start, void* argument)> CreateThread;

    /// Parks the calling thread, whose handle this is, until ResumeThread. A resume that came first is used up at once.
    std::function<void(ThreadHandle self)> SuspendThread;
    std::function<void(ThreadHandle thread)> ResumeThread;

    /// A new mutex that no one owns; lives until CloseMutex.
    std::function<MutexHandle()> CreateMutexW;
    std::function<void(MutexHandle mutex)> WaitForMutex;
    std::function<void(MutexHandle mutex)> ReleaseMutex;
    std::function<void(MutexHandle mutex)> CloseMutex;
};

inline const ThreadOperations& Threads() { return CurrentOperations<ThreadOperations>(); }

}  // namespace platform

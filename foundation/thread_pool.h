// Starting threads, and the record of a pooled thread, which parks itself when it is out of work.
#pragma once

#include <atomic>
#include <cstdint>

#include "platform/threads.h"

namespace kv {

enum class PooledThreadState : std::uint16_t { unused = 0, idle = 1, busy = 2 };

struct ThreadInfo {
    std::atomic<PooledThreadState> state{PooledThreadState::unused};
    platform::ThreadHandle handle = 0;
};

/// Results of CheckThreadPool_MSP.
inline constexpr int poolReuse = 1;
inline constexpr int poolStart = 4;
inline constexpr int poolFull = 5;

/// Starts a thread with the argument. Its handle, which is never closed, or 0 with a log line when it cannot be
/// started.
platform::ThreadHandle CreateNewThread_MSP(platform::ThreadStart start, void* argument);

/// Writes a trace line and nothing else: a record is ready as it is made.
void InitThreadInfo_MSP(ThreadInfo* info);

/// poolReuse with the index of the first idle thread; else poolStart when count is below limit, or poolFull. outIndex
/// changes with poolReuse only.
[[nodiscard]] int CheckThreadPool_MSP(const ThreadInfo* pool, int count, int* outIndex, int limit);

/// Called by a pooled thread on itself: it becomes idle, parks, and is busy again once it was resumed.
void SuspendSelf_MSP(ThreadInfo* info);
/// Wakes a parked thread. One that has become idle and does not park yet misses it.
void ResumeThreadInfo_MSP(ThreadInfo* info);

}  // namespace kv

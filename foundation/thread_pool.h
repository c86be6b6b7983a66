// Starting threads, and the record of a pooled thread that parks itself when it is out of work.
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

/// Starts a thread with the argument; its handle, never closed, or 0 with a log line.
platform::ThreadHandle CreateNewThread_MSP(platform::ThreadStart start, void* argument);

void InitThreadInfo_MSP(ThreadInfo* info);

/// poolReuse with the index of the first idle thread, poolStart when none is idle and count is below limit, else
/// poolFull.
[[nodiscard]] int CheckThreadPool_MSP(const ThreadInfo* pool, int count, int* outIndex, int limit);

/// Called by a pooled thread on itself: idle, parked, and busy again once resumed.
void SuspendSelf_MSP(ThreadInfo* info);
void ResumeThreadInfo_MSP(ThreadInfo* info);

}  // namespace kv

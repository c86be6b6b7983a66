#include "foundation/thread_pool.h"

#include "foundation/log.h"

namespace kv {

platform::ThreadHandle CreateNewThread_MSP(platform::ThreadStart start, void* argument) {
    Log4("\t@@@@@ Inside CreateNewThread_MSP() @@@@@ \n");
    const platform::ThreadHandle thread = platform::Threads().CreateThread(start, argument);
    if (thread == 0) Log3("Unable to create Thread\n");
    return thread;
}

void InitThreadInfo_MSP(ThreadInfo*) { Log4("\t@@@@@ Inside InitThreadInfo_MSP() @@@@@ \n"); }

int CheckThreadPool_MSP(const ThreadInfo* pool, int count, int* outIndex, int limit) {
    Log4("\t@@@@@ Inside CheckThreadPool_MSP() @@@@@ \n");
    for (int i = 0; i < count; ++i) {
        if (pool[i].state == PooledThreadState::idle) {
            *outIndex = i;
            return poolReuse;
        }
    }
    return count < limit ? poolStart : poolFull;
}

void SuspendSelf_MSP(ThreadInfo* info) {
    Log4("\t@@@@@ Inside SuspendSelf_MSP() @@@@@ \n");
    info->state = PooledThreadState::idle;
    platform::Threads().SuspendThread(info->handle);
    info->state = PooledThreadState::busy;
}

void ResumeThreadInfo_MSP(ThreadInfo* info) {
    Log4("\t@@@@@ Inside ResumeThreadInfo_MSP() @@@@@ \n");
    platform::Threads().ResumeThread(info->handle);
}

}  // namespace kv

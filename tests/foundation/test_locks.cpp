// The table of locked addresses, pooled threads, and texts that are replaced while others read them.
#include <atomic>
#include <thread>

#include "foundation/published_text.h"
#include "foundation/resource_lock.h"
#include "foundation/thread_pool.h"
#include "tests/support/test_agent.h"
#include "tests/support/virtual_clock.h"

namespace kv {
namespace {

using Locks = test::TestAgent;
using test::VirtualClock;

TEST_F(Locks, LocksAreIndependentAndHaveNoOwner) {
    int one = 0;
    int other = 0;
    SynchronizeResource_MSP(&one);
    EXPECT_EQ(ResourceLockOp_MSP(&one, LockOperation::lock), lockBusy);
    EXPECT_EQ(ResourceLockOp_MSP(&other, LockOperation::lock), lockAcquired);
    std::thread([&one] { UnsynchronizeResource_MSP(&one); }).join();
    EXPECT_EQ(IsResourceLocked_MSP(&one), 2);
    EXPECT_FALSE(Logged("Alert!"));
    UnsynchronizeResource_MSP(&one);
    EXPECT_TRUE(Logged("Alert! something went wrong...\n"));
    EXPECT_EQ(IsResourceLocked_MSP(&other), 1);
    EXPECT_EQ(TimedSynchronizeResource_MSP(&other, 1), 1);
    UnsynchronizeResource_MSP(&other);
    EXPECT_EQ(TimedSynchronizeResource_MSP(&other, 1), -1);
    UnsynchronizeResource_MSP(&other);
}

TEST_F(Locks, APurgeReleasesLocksOlderThanFiveMinutes) {
    VirtualClock clock;
    int one = 0, other = 0;
    SynchronizeResource_MSP(&one);
    clock.AdvanceMilliseconds(1000);
    SynchronizeResource_MSP(&other);
    clock.AdvanceMilliseconds(300'000);
    CleanResourceLockTable_MSP();
    EXPECT_EQ(IsResourceLocked_MSP(&one), 2);
    EXPECT_EQ(IsResourceLocked_MSP(&other), 1);
    UnsynchronizeResource_MSP(&other);
    while (NextLockBackoff() != 80) continue;
    EXPECT_EQ(NextLockBackoff(), 90);
    EXPECT_EQ(NextLockBackoff(), 10);
    SleepMicroseconds(1999);
    EXPECT_EQ(clock.nowMilliseconds(), VirtualClock::startMilliseconds + 301'001);
}

TEST_F(Locks, APooledThreadIsUsedAgainOnceItIsIdle) {
    static std::atomic<int> rounds;
    rounds = -1;
    static auto* const pool = new ThreadInfo[2];  // its thread may read it until the process ends
    int index = 7;
    InitThreadInfo_MSP(pool);
    EXPECT_EQ(CheckThreadPool_MSP(pool, 0, &index, 1), poolStart);
    pool[1].handle = CreateNewThread_MSP(
        [](void* info) {
            while (rounds < 0) std::this_thread::yield();  // until its handle is stored
            for (; rounds < 3; ++rounds) SuspendSelf_MSP(static_cast<ThreadInfo*>(info));
            return 0U;
        },
        &pool[1]);
    rounds = 0;
    for (int round = 1; round <= 3; ++round) {
        while (CheckThreadPool_MSP(pool, 2, &index, 2) != poolReuse) std::this_thread::yield();
        EXPECT_EQ(index, 1);
        ResumeThreadInfo_MSP(&pool[index]);
        while (rounds < round) std::this_thread::yield();
    }
    EXPECT_EQ(pool[1].state, PooledThreadState::busy);
    EXPECT_EQ(CheckThreadPool_MSP(pool, 2, &index, 2), poolFull);
    EXPECT_EQ(CheckThreadPool_MSP(pool, 2, &index, 3), poolStart);
}

TEST(PublishedTexts, StayForTheirReadersAndAreReused) {
    PublishedText text;
    EXPECT_EQ(text.get(), nullptr);
    const std::u16string a(1000, u'a');
    const std::u16string b(2000, u'b');
    text.Publish(a);
    const std::u16string* first = text.get();
    text.Publish(b);
    EXPECT_EQ(*first, a) << "a reader may still hold it";
    text.Publish(a);
    EXPECT_EQ(text.get(), first) << "memory stays bounded";
    text.Publish(std::nullopt);
    EXPECT_EQ(text.get(), nullptr);
}

}  // namespace
}  // namespace kv

// The table of locked addresses, and texts that are replaced under their readers.
#include <atomic>
#include <string>
#include <thread>

#include "foundation/published_text.h"
#include "foundation/resource_lock.h"
#include "tests/support/test_agent.h"

namespace kv {
namespace {

using Locks = test::TestAgent;

TEST_F(Locks, KeysLockIndependentlyAndHaveNoOwner) {
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

TEST_F(Locks, ALockKeepsThreadsApart) {
    int counter = 0;  // plain: only the lock makes the sum right
    const auto count = [&] {
        for (int i = 0; i < 1000; ++i) {
            const ResourceLock lock(&counter);
            ++counter;
        }
    };
    std::thread first(count);
    std::thread second(count);
    first.join();
    second.join();
    EXPECT_EQ(counter, 2000);
}

TEST(PublishedTexts, ReadersHoldWholeTexts) {
    PublishedText text;
    EXPECT_EQ(text.get(), nullptr);
    const std::u16string a(1000, u'a');
    const std::u16string b(2000, u'b');
    text.publish(a);
    const std::u16string* first = text.get();
    std::atomic<bool> done{false};
    std::thread reader([&] {
        while (!done) {
            const std::u16string_view view = text.view();
            EXPECT_TRUE(view == a || view == b);
        }
    });
    for (int i = 0; i < 1000; ++i) text.publish(i % 2 ? a : b);
    done = true;
    reader.join();
    EXPECT_EQ(text.get(), first) << "an equal text is shared, so that memory stays bounded";
    text.publish(std::nullopt);
    EXPECT_EQ(text.get(), nullptr);
}

}  // namespace
}  // namespace kv

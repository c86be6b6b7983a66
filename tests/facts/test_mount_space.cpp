// The space of mounts, one of which does not answer.
#include <atomic>
#include <chrono>
#include <gmock/gmock.h>
#include <memory>
#include <semaphore>

#include "facts/storage/mount_space.h"

namespace kv::test {
namespace {

using namespace facts;
using namespace std::chrono_literals;
using std::chrono::steady_clock;

TEST(MountSpace, WaitsForASilentMountOnlyOnce) {
    std::vector<Mount> mounts(2);
    mounts[0].mountPoint = "/dead";
    mounts[1].mountPoint = "/alive";
    const auto released = std::make_shared<std::counting_semaphore<>>(0);
    const auto asked = std::make_shared<std::atomic<int>>(0);
    const SpaceQuestion question = [=](const std::string& mountPoint) {
        if (mountPoint == "/dead") {
            ++*asked;
            released->acquire();
        }
        return SpaceAnswer();
    };
    std::vector<std::string> notices;
    const auto ask = [&](std::chrono::milliseconds bound) {
        notices.clear();
        return AskMounts(mounts, question, bound, [&](const std::string& text) { notices.push_back(text); });
    };
    EXPECT_FALSE(ask(100ms)[0].has_value());
    EXPECT_THAT(notices, testing::ElementsAre(testing::HasSubstr("/dead")));
    const auto start = steady_clock::now();
    const auto again = ask(30s);
    EXPECT_LT(steady_clock::now() - start, 30s) << "the silent mount is skipped";
    EXPECT_FALSE(again[0].has_value());
    EXPECT_TRUE(again[1].has_value());
    EXPECT_EQ(notices.size(), 1u);
    EXPECT_EQ(*asked, 1) << "at most one thread is stuck";
    mounts[0].device = "0:99";
    EXPECT_FALSE(ask(50ms)[0].has_value());
    EXPECT_EQ(*asked, 2) << "a new device is another mount";
    released->release(100);
    std::vector<std::optional<SpaceAnswer>> answers;
    const auto end = steady_clock::now() + 30s;
    do answers = ask(10s);
    while (!answers[0] && steady_clock::now() < end);
    EXPECT_TRUE(answers[0]) << "it answers again";
    const int before = *asked;
    ask(10s);
    EXPECT_EQ(*asked, before + 1) << "each time";
    EXPECT_TRUE(notices.empty());
}

}  // namespace
}  // namespace kv::test

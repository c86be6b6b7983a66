// The smaller lists of operations, and the text conversions beside them.
#include <atomic>
#include <cstdlib>
#include <fstream>
#include <thread>

#include "platform/clock.h"
#include "platform/posix/posix.h"
#include "platform/sockets.h"
#include "platform/system_facts.h"
#include "platform/threads.h"
#include "platform/utf.h"
#include "tests/support/test_agent.h"

namespace platform::test {

namespace {

using SystemTest = kv::test::TestAgent;

TEST(Utf, BothDirectionsTakeAnything) {
    using namespace std::string_literals;
    const struct {
        const char* title;
        std::string utf8;
        std::u16string wide;
        bool valid = true;
    } toWide[] = {
        {"one to four bytes", "a\u00E4\u20AC\U0001F600", u"a\u00E4\u20AC\U0001F600"},
        {"a zero stays", "a\0b"s, u"a\0b"s},
        {"cut inside a character", "a\xF0\x9F\x98", u"a\uFFFD", false},
        {"an overlong form", "a\xC0\xAFz", u"a\uFFFDz", false},
        {"bytes of no sequence", "\xFF\xFEz", u"\uFFFD\uFFFDz", false},
    };
    for (const auto& row : toWide) {
        EXPECT_EQ(WideFromUtf8(row.utf8), row.wide) << row.title;
        EXPECT_EQ(IsValidUtf8(row.utf8), row.valid) << row.title;
        EXPECT_EQ(Utf8FromWide(row.wide) == row.utf8, row.valid) << row.title;
    }
    EXPECT_EQ(Utf8FromWide(std::u16string{0xD83D, 0xD83D, 0xDE00}), "\uFFFD\U0001F600") << "two leads and a trail";
    EXPECT_EQ(Utf8FromWide(std::u16string{0xDE00, u'a', 0xD83D}), "\uFFFDa\uFFFD") << "a trail and a lead alone";
}

TEST_F(SystemTest, LocalTimeFollowsTheZone) {
    setenv("TZ", "XYZ-5:30", 1);
    tzset();
    const LocalTime time = Clock().ToLocalTime(1772701507042);
    EXPECT_EQ(time.day * 1000000 + time.hour * 10000 + time.minute * 100 + time.second, 5143507);
    EXPECT_EQ(time.millisecond, 42);
    EXPECT_EQ(Clock().FromLocalTime(time), 1772701507042);
    unsetenv("TZ");
    tzset();
}

std::atomic<ThreadHandle> parked{0};
std::atomic<int> timesWoken{0};

TEST_F(SystemTest, AResumeIsNeverLost) {
    const ThreadHandle thread = Threads().CreateThread(
        [](void*) -> std::uint32_t {
            parked.wait(0);
            for (int round = 0; round < 3; ++round) {
                Threads().SuspendThread(parked);
                ++timesWoken;
                timesWoken.notify_all();
            }
            return 0;
        },
        nullptr);
    ASSERT_NE(thread, 0U);
    Threads().ResumeThread(thread);  // before the thread parks itself
    parked = thread;
    parked.notify_all();
    for (int woken = 0; woken < 3; ++woken) {
        timesWoken.wait(woken);
        EXPECT_EQ(timesWoken, woken + 1);
        if (woken < 2) {
            EXPECT_EQ(Threads().WaitForThread(thread, 1), error::waitTimeout);
        }
        Threads().ResumeThread(thread);
    }
    EXPECT_EQ(Threads().WaitForThread(thread, infinite), error::success);
    EXPECT_EQ(Threads().WaitForThread(thread, 0), error::success) << "once more";
    EXPECT_EQ(Threads().WaitForThread(0, 0), error::invalidHandle);
}

TEST_F(SystemTest, AnEventStaysSetAndIsClosedAsSoonAsItIsSeen) {
    for (int round = 0; round < 50; ++round) {
        EventHandle event = 0;
        ASSERT_EQ(Threads().CreateEventW(event), error::success);
        EXPECT_EQ(Threads().WaitForEvent(event, 0), error::waitTimeout);
        const ThreadHandle setter = Threads().CreateThread(
            [](void* argument) -> std::uint32_t {
                Threads().SetEvent(*static_cast<EventHandle*>(argument));
                return 0;
            },
            &event);
        EXPECT_EQ(Threads().WaitForEvent(event, round % 2 == 0 ? infinite : 60000), error::success);
        EXPECT_EQ(Threads().WaitForEvent(event, 0), error::success);
        Threads().CloseEvent(event);
        EXPECT_EQ(Threads().WaitForThread(setter, infinite), error::success);
    }
    EXPECT_EQ(Threads().WaitForEvent(0, 0), error::invalidHandle);
}

TEST_F(SystemTest, HostsAndFactsAreTheSystemsOwn) {
    HostEntry host;
    EXPECT_EQ(Sockets().gethostbyname("localhost", host), error::success);
    EXPECT_EQ(host.address, "127.0.0.1");
    EXPECT_EQ(Sockets().gethostbyaddr("127.0.0.1", host), error::success);
    EXPECT_EQ(host.name.substr(0, 9), "localhost");
    SystemVersion version;
    ASSERT_EQ(SystemFacts().GetVersionExW(version), error::success);
    const std::string release = Read("/etc/os-release");
    EXPECT_NE(release.find("PRETTY_NAME=\"" + Utf8FromWide(version.plainName) + "\""), release.npos) << release;
}

/// Pages of files, such as libraries, in this process's memory.
long ResidentFilePages() {
    long total = 0, resident = 0, shared = 0;
    std::ifstream("/proc/self/statm") >> total >> resident >> shared;
    return shared;
}

TEST_F(SystemTest, LibraryPagesAreGivenBackUnderRunningThreads) {
    std::atomic<bool> done{false};
    std::thread busy([&] {
        for (int number = 0; !done; ++number) EXPECT_EQ(std::stoi(std::to_string(number)), number);
    });
    const long before = ResidentFilePages();
    for (int round = 0; round < 50; ++round) TrimResidentLibraryPages();
    EXPECT_LT(ResidentFilePages(), before * 3 / 4);
    done = true;
    busy.join();
}

}  // namespace

}  // namespace platform::test

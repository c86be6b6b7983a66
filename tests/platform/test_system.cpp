// The smaller lists of operations, and the text conversions beside them.
#include <array>
#include <atomic>
#include <gtest/gtest.h>

#include "platform/backend.h"
#include "platform/clock.h"
#include "platform/messages.h"
#include "platform/sockets.h"
#include "platform/system_facts.h"
#include "platform/threads.h"
#include "platform/utf.h"
#include "platform/wmi_status.h"

namespace platform::test {

namespace {

struct SystemTest : ::testing::Test {
    SystemTest() { InstallBackend(); }
};

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

TEST_F(SystemTest, LocalTimeIsTakenApartAndPutTogether) {
    for (const auto moment : {1772701507042LL, 0LL, -1LL, -86400001LL, 4102444800999LL}) {
        EXPECT_EQ(Clock().FromLocalTime(Clock().ToLocalTime(moment)), moment);
    }
    const struct {
        const char* title;
        LocalTime beyond, same;
    } rows[] = {{"day 0 of month 0", {2026, 0, 0}, {2025, 11, 30}},
                {"month 13", {2026, 13, 1}, {2027, 1, 1}},
                {"what an archive's date and time may hold", {1980, 15, 31, 31, 63, 62}, {1981, 4, 1, 8, 4, 2}}};
    for (const auto& row : rows) {
        EXPECT_EQ(Clock().FromLocalTime(row.beyond), Clock().FromLocalTime(row.same)) << row.title;
    }
}

// Looked at again and again: waiting on an atomic loses wake-ups where the library has to build it from a condition.
std::atomic<ThreadHandle> parked{0};
std::atomic<int> timesWoken{0};

TEST_F(SystemTest, AResumeIsNeverLost) {
    parked = 0;
    timesWoken = 0;
    const ThreadHandle thread = Threads().CreateThread(
        [](void*) -> std::uint32_t {
            while (parked == 0) Clock().Sleep(0);
            for (int round = 0; round < 3; ++round) {
                Threads().SuspendThread(parked);
                ++timesWoken;
            }
            return 0;
        },
        nullptr);
    ASSERT_NE(thread, 0U);
    Threads().ResumeThread(thread);  // before the thread parks itself
    parked = thread;
    for (int woken = 0; woken < 3; ++woken) {
        while (timesWoken == woken) Clock().Sleep(0);
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

TEST_F(SystemTest, HostsAreFoundByNameAndByAddress) {
    HostEntry host;
    EXPECT_EQ(Sockets().gethostbyname("localhost", host), error::success);
    EXPECT_EQ(host.address, "127.0.0.1");
    EXPECT_EQ(Sockets().gethostbyaddr("127.0.0.1", host), error::success);
    EXPECT_FALSE(host.name.empty());
    for (const char* unknown : {"no.such.host.invalid", ""}) {
        EXPECT_EQ(Sockets().gethostbyname(unknown, host), error::hostNotFound) << unknown;
    }
    std::string name;
    std::u16string fullName;
    EXPECT_EQ(Sockets().gethostname(name), error::success);
    EXPECT_EQ(SystemFacts().GetComputerNameExW(fullName), error::success);
    EXPECT_TRUE(!name.empty() && !fullName.empty());
}

TEST_F(SystemTest, AnAddressHasFourDecimalParts) {
    std::array<std::uint8_t, 4> address{};
    EXPECT_TRUE(Sockets().inet_addr("10.0.255.1 and more", address));
    EXPECT_EQ(Sockets().inet_ntoa(address), "10.0.255.1");
    for (const char* text : {"", " 1.2.3.4", "1.2.3", "1.2.3.4.5", "1.2.3.256", "1.2.3.04", "0x1.2.3.4", "1.2.3.4x"}) {
        EXPECT_FALSE(Sockets().inet_addr(text, address)) << text;
        HostEntry host;
        EXPECT_EQ(Sockets().gethostbyaddr(text, host), error::invalidParameter) << text;
    }
}

/// How the texts read is the system's own.
TEST_F(SystemTest, MessagesAreTheSystemsOrALibrarysOrNone) {
    const std::optional<std::u16string> denied = Messages().FormatMessageW(error::accessDenied);
    ASSERT_TRUE(denied);
    EXPECT_FALSE(denied->empty());
    EXPECT_FALSE(Messages().FormatMessageW(wmi_status::invalidClass)) << "a library's";

    ModuleHandle texts = 0, again = 0, none = 0;
    EXPECT_NE(Messages().LoadLibraryW(u"no-such-library.dll", none), error::success);
    ASSERT_EQ(Messages().LoadLibraryW(u"wmiutils.dll", texts), error::success);
    EXPECT_EQ(Messages().LoadLibraryW(u"wmiutils.dll", again), error::success);
    EXPECT_EQ(texts, again);
    EXPECT_EQ(Messages().FormatModuleMessageW(texts, error::accessDenied), denied);
    EXPECT_FALSE(Messages().FormatModuleMessageW(texts, 0x8FFFFFFF));
    EXPECT_FALSE(Messages().FormatModuleMessageW(none, error::accessDenied));
}

}  // namespace

}  // namespace platform::test

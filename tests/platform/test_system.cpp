// The smaller lists of operations, and text conversions.
#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <functional>
#include <gtest/gtest.h>
#include <set>
#include <stdexcept>
#include <vector>

#include "platform/backend.h"
#include "platform/clock.h"
#include "platform/guarded.h"
#include "platform/messages.h"
#include "platform/process.h"
#include "platform/sockets.h"
#include "platform/system_facts.h"
#include "platform/threads.h"
#include "platform/utf.h"
#include "platform/wmi_status.h"
#include "tests/support/snmp_devices.h"

namespace platform::test {

namespace {

struct SystemTest : ::testing::Test {
    SystemTest() { InstallBackend(); }
};

TEST(Utf, ConvertsAnythingInBothDirections) {
    using namespace std::string_literals;
    const std::tuple<const char*, std::string, std::u16string, bool> rows[] = {
        {"one to four bytes", "a\u00E4\u20AC\U0001F600", u"a\u00E4\u20AC\U0001F600", true},
        {"a zero character", "a\0b"s, u"a\0b"s, true},
        {"cut inside a character", "a\xF0\x9F\x98", u"a\uFFFD", false},
        {"an overlong form", "a\xC0\xAFz", u"a\uFFFDz", false},
        {"invalid bytes", "\xFF\xFEz", u"\uFFFD\uFFFDz", false},
    };
    for (const auto& [title, utf8, wide, isValid] : rows) {
        EXPECT_EQ(WideFromUtf8(utf8), wide) << title;
        EXPECT_EQ(IsValidUtf8(utf8), isValid) << title;
        EXPECT_EQ(Utf8FromWide(wide) == utf8, isValid) << title;
    }
    EXPECT_EQ(Utf8FromWide(std::u16string{0xD83D, 0xD83D, 0xDE00}), "\uFFFD\U0001F600") << "two leads and a trail";
    EXPECT_EQ(Utf8FromWide(std::u16string{0xDE00, u'a', 0xD83D}), "\uFFFDa\uFFFD") << "a trail and a lead alone";
}

TEST(Guard, TurnsExceptionsIntoResults) {
    const std::error_code again(EAGAIN, std::generic_category());
    const std::tuple<const char*, std::function<void()>, Error, int> rows[] = {
        {"no exception", [] {}, error::success, directory_error::success},
        {"out of memory", [] { throw std::bad_alloc(); }, error::notEnoughMemory, directory_error::noMemory},
        {"out of threads", [&] { throw std::system_error(again); }, error::notEnoughMemory, directory_error::noMemory},
        {"anything else", [] { throw std::runtime_error("else"); }, error::generalFailure, directory_error::invalid},
    };
    for (const auto& [title, work, result, directoryResult] : rows) {
        EXPECT_EQ(Guarded([&work = work] { return work(), error::success; })(), result) << title;
        EXPECT_EQ(Guarded([&work = work] { return work(), 0; }, directoryErrorResults)(), directoryResult) << title;
    }
    EXPECT_THROW(Guarded([]() -> Error { throw 1; })(), int) << "the exception of a test that ends a loop";
}

TEST_F(SystemTest, ConvertsLocalTimeInBothDirections) {
    for (const auto moment : {1772701507042LL, 0LL, -1LL, -86400001LL, 4102444800999LL}) {
        EXPECT_EQ(Clock().FromLocalTime(Clock().ToLocalTime(moment)), moment);
    }
    const std::tuple<const char*, LocalTime, LocalTime> rows[] = {
        {"day 0 of month 0", {2026, 0, 0}, {2025, 11, 30}},
        {"month 13", {2026, 13, 1}, {2027, 1, 1}},
        {"what an archive's date and time may hold", {1980, 15, 31, 31, 63, 62}, {1981, 4, 1, 8, 4, 2}}};
    for (const auto& [title, beyond, same] : rows)
        EXPECT_EQ(Clock().FromLocalTime(beyond), Clock().FromLocalTime(same)) << title;
}

// Polled, because waiting on an atomic can lose wake-ups in a library that builds it from a condition variable.
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
    EXPECT_EQ(Threads().WaitForThread(thread, 0), error::success) << "a second time";
    EXPECT_EQ(Threads().WaitForThread(0, 0), error::invalidHandle);
}

TEST_F(SystemTest, AnEventStaysSetAndMayBeClosedAtOnce) {
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
        Threads().ResetEvent(event);
        EXPECT_EQ(Threads().WaitForEvent(event, 0), error::waitTimeout);
        Threads().CloseEvent(event);
        EXPECT_EQ(Threads().WaitForThread(setter, infinite), error::success);
    }
    EXPECT_EQ(Threads().WaitForEvent(0, 0), error::invalidHandle);
}

TEST_F(SystemTest, KnowsProcessesByTheirNumbersAndRefusesHandleZero) {
    std::u16string name;
    std::uint32_t exitCode = 0;
    EXPECT_EQ(Processes().GetProcessName(Processes().GetCurrentProcessId(), name), error::success);
    EXPECT_EQ(name, u"test_system");
    EXPECT_EQ(Processes().GetProcessName(0x7FFFFFF0, name), error::fileNotFound);
    EXPECT_EQ(name, u"");
    EXPECT_EQ(Processes().WaitForSingleObject(0, 0), error::invalidHandle);
    EXPECT_EQ(Processes().GetExitCodeProcess(0, exitCode), error::invalidHandle);
    EXPECT_EQ(Processes().TerminateProcess(0), error::invalidHandle);
    Processes().CloseProcess(0);
}

TEST_F(SystemTest, FindsHostsByNameAndByAddress) {
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
    std::array<std::uint8_t, 4> address{};
    if (const Error failure = Sockets().GetDefaultRouteAddress(name)) {
        EXPECT_EQ(failure, error::hostNotFound) << "without a network";
    } else {
        EXPECT_TRUE(Sockets().inet_addr(name, address) && address[0] != 127 && address[0] != 0) << name;
    }
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

TEST_F(SystemTest, FindsMessagesInTheSystemOrALibrary) {
    const std::optional<std::u16string> denied = Messages().FormatMessageW(error::accessDenied);
    ASSERT_TRUE(denied);
    EXPECT_FALSE(denied->empty());
    EXPECT_FALSE(Messages().FormatMessageW(wmi_status::invalidClass)) << "only a library has it";

    ModuleHandle texts = 0, again = 0, missing = 0;
    EXPECT_NE(Messages().LoadLibraryW(u"no-such-library.dll", missing), error::success);
    ASSERT_EQ(Messages().LoadLibraryW(u"wmiutils.dll", texts), error::success);
    EXPECT_EQ(Messages().LoadLibraryW(u"wmiutils.dll", again), error::success);
    EXPECT_EQ(texts, again);
    EXPECT_EQ(Messages().FormatModuleMessageW(texts, error::accessDenied), denied);
    EXPECT_FALSE(Messages().FormatModuleMessageW(texts, 0x8FFFFFFF));
    EXPECT_FALSE(Messages().FormatModuleMessageW(missing, error::accessDenied));
}

SocketHandle OpenSocket() {
    SocketHandle socket = 0;
    EXPECT_EQ(Sockets().socket(socket), error::success);
    EXPECT_EQ(Sockets().bind(socket, {}), error::success);
    return socket;
}

TEST_F(SystemTest, SendsDatagramsThereAndBack) {
    constexpr std::array<std::uint8_t, 4> loopback{127, 0, 0, 1};
    const kv::test::ScriptedDevice echo([](auto request) { return std::vector{std::string(request)}; });
    const SocketHandle client = OpenSocket();
    std::array<char, 100> buffer{};
    SocketAddress peer;
    std::size_t length = 0;
    bool ready = true;
    EXPECT_EQ(Sockets().select(client, 1000, ready), error::success);
    EXPECT_FALSE(ready);
    EXPECT_EQ(Sockets().recvfrom(client, buffer.data(), buffer.size(), peer, length), error::busy);
    for (const std::size_t size : {std::size_t{0}, std::size_t{42}, std::size_t{1500}}) {
        const std::vector<char> bytes(size, static_cast<char>(size));
        EXPECT_EQ(Sockets().sendto(client, bytes.data(), size, {loopback, echo.port()}, length), error::success);
        EXPECT_EQ(length, size);
        ASSERT_EQ(Sockets().select(client, 10'000'000, ready), error::success);
        ASSERT_TRUE(ready);
        const Error received = Sockets().recvfrom(client, buffer.data(), buffer.size(), peer, length);
        if (size > buffer.size() && received != error::success) continue;  // a cut is an error on some systems
        ASSERT_EQ(received, error::success);
        EXPECT_EQ(length, std::min(size, buffer.size())) << "a long datagram is cut";
        EXPECT_TRUE(std::equal(buffer.begin(), buffer.begin() + length, bytes.begin()));
        EXPECT_EQ(peer.address, loopback);
        EXPECT_EQ(peer.port, echo.port());
    }
    const std::vector<char> tooLong(70000);
    EXPECT_NE(Sockets().sendto(client, tooLong.data(), tooLong.size(), peer, length), error::success);
    EXPECT_EQ(Sockets().closesocket(client), error::success);
}

TEST_F(SystemTest, AHandleIsNeverTakenForAStatus) {
    std::set<SocketHandle> sockets;
    while (sockets.size() < 300) {
        const SocketHandle socket = OpenSocket();
        ASSERT_TRUE(sockets.insert(socket).second);
        for (const SocketHandle status : {0U, 99U, 255U}) EXPECT_NE(socket & 0xFF, status) << socket;
    }
    for (const SocketHandle socket : sockets) EXPECT_EQ(Sockets().closesocket(socket), error::success);
    for (const SocketHandle socket : {SocketHandle{0}, *sockets.rbegin()}) {
        char byte = 0;
        SocketAddress peer;
        std::size_t length = 0;
        bool ready = true;
        EXPECT_EQ(Sockets().bind(socket, {}), error::invalidHandle);
        EXPECT_EQ(Sockets().select(socket, 0, ready), error::invalidHandle);
        EXPECT_FALSE(ready);
        EXPECT_EQ(Sockets().sendto(socket, &byte, 1, peer, length), error::invalidHandle);
        EXPECT_EQ(Sockets().recvfrom(socket, &byte, 1, peer, length), error::invalidHandle);
        EXPECT_EQ(Sockets().closesocket(socket), error::invalidHandle);
    }
}

}  // namespace

}  // namespace platform::test

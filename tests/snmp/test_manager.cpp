// The manager against devices that misbehave.
#include <algorithm>

#include "foundation/registry_store.h"
#include "platform/files.h"
#include "platform/sockets.h"
#include "snmp/manager_walk.h"
#include "snmp/processing_hooks.h"
#include "snmp/toolkit_log.h"
#include "snmp/udp_transport.h"
#include "tests/snmp/manager_test.h"
#include "tests/support/virtual_clock.h"

namespace kv::test {
namespace {

using ::testing::HasSubstr;
using ::testing::StartsWith;

/// A variable whose name is .1.3.6.1.9.LAST.
std::string Variable(char last, std::uint8_t tag, std::string_view content) {
    return Item(0x30, Item(0x06, FromHex("2b 06 01 09") + last) + Item(tag, content));
}

TEST_F(SnmpManager, EndsAWalkThatCannotGoOn) {
    const auto value = [](char last) { return DeviceAnswer{.variables = {Variable(last, 0x04, "v")}}; };
    const std::string one = "1: .1.3.6.1.9.1 4:v", outside = Item(0x30, FromHex("06 01 2c 05 00"));
    const DeviceAnswer end{.variables = {Variable(9, 0x82, "")}}, error{.errorStatus = 103}, trap{.command = 0xA4};
    const DeviceAnswer leaving{.variables = {Variable(2, 4, "v"), outside}};
    const DeviceAnswer exception{.variables = {Variable(2, 0x81, ""), Variable(3, 4, "v")}};
    struct Row {
        const char* title;
        std::vector<DeviceAnswer> answers;
        std::string expected;
        std::string logged = {};
    };
    for (const Row& row : std::vector<Row>{
             {"the end of the tree", {value(1), end}, one},
             {"an error", {value(1), error}, one, "goes no further, with the error status 103. The walk ends with 1"},
             {"a trap", {value(1), trap}, one, "sends what cannot be read. The walk ends with 1 values"},
             {"a value beside one that is out of the subtree", {value(1), leaving}, one},
             {"an exception among values, and an empty list",
              {value(1), exception, value(4), {}},
              one + ", .1.3.6.1.9.2 129:(null), .1.3.6.1.9.3 4:v, .1.3.6.1.9.4 4:v",
              "sends no value that can be read. The walk ends with 4 values"},
         }) {
        SCOPED_TRACE(row.title);
        const ScriptedDevice device([&row, turn = std::size_t{0}](std::string_view) mutable {
            return std::vector{EncodeAnswer(row.answers.at(turn++))};
        });
        const std::size_t before = LogText().size();
        EXPECT_EQ(AnswerText({.port = device.port(), .type = snmpWalk, .oids = {".1.3.6.1.9"}}), row.expected);
        const std::string logged = LogText().substr(before);
        EXPECT_THAT(logged, HasSubstr(row.logged));
        EXPECT_EQ(logged.empty(), row.logged.empty());
    }
}

TEST_F(SnmpManager, EndsAWalkThatGoesOnAndOn) {
    VirtualClock clock;
    int lookUps = 0;
    const Replaced counting(&platform::SocketOperations::gethostbyname,
                            [&lookUps, real = platform::Sockets().gethostbyname](auto name, auto& host) {
                                ++lookUps;
                                return real(name, host);
                            });
    const struct {
        const char* line;
        int least, most;  // values
        snmp::WalkBounds bounds = {};
        int circle = 100;      // answers until the first one comes again
        std::size_t size = 1;  // of a value
        int minutes = 0;       // until an answer comes
    } rows[] = {
        {"sends OIDs that run in a circle", 2, 8, {}, 2},
        {"sends OIDs that run in a circle", 100, 400},
        {"takes longer than a request may last. The walk ends with 3 values", 3, 3, {}, 100, 1, 25},
        {"goes on and on. The walk ends with 7 values", 7, 7, {.values = 7}},
        {"sends more than a request may bring", 20, 40, {.bytes = 10000}},
        {"sends more than a request may bring", 4, 5, {.bytes = 10000}, 100, 1000},
    };
    for (const auto& row : rows) {
        char last = 0;
        const ScriptedDevice device([&](std::string_view) {
            clock.AdvanceMilliseconds(row.minutes * 60 * 1000);
            last = static_cast<char>(last % row.circle + 1);
            return std::vector{EncodeAnswer({.variables = {Variable(last, 4, std::string(row.size, 'v'))}})};
        });
        lookUps = 0;
        const char* oid = ".1.3.6.1.9";
        const std::size_t before = LogText().size();
        const snmp::ResultVectors results =
            snmp::Walk({"localhost", device.port(), 1, "public", snmpWalk, "v2c", &oid, 1}, row.bounds).Run();
        ASSERT_NE(results, nullptr);
        EXPECT_THAT(results[0]->count, testing::AllOf(testing::Ge(row.least), testing::Le(row.most)));
        EXPECT_EQ(TimesLogged(row.line, before), 1) << row.line;
        EXPECT_EQ(lookUps, 1);
    }
}

TEST_F(SnmpManager, GivesTheFallbackWhenAWalkFallsSilent) {
    SnmpResponseData fallback{};
    std::vector<std::string> requests;
    std::string tooLong;
    for (int i = 0; i < 133; ++i) tooLong += ".1";
    Request walk{.type = snmpWalk, .oids = {".1.3.6.1.9"}, .fallback = &fallback};
    {
        const ScriptedDevice device([&requests](std::string_view request) -> std::vector<std::string> {
            requests.emplace_back(request);
            if (requests.size() == 3) return {};
            return {EncodeAnswer({.variables = {Variable(static_cast<char>(requests.size()), 0x04, "v")}})};
        });
        walk.port = device.port();
        EXPECT_EQ(SendRequest(walk), &fallback);
        AnswerText({.port = device.port(), .oids = {tooLong.c_str()}});
    }
    ASSERT_EQ(requests.size(), 4u) << "each request is sent once";
    EXPECT_EQ(requests[1], FromHex("30 82 00 29 02 01 01 04 06 70 75 62 6c 69 63 a1 82 00 1a 02 01 01 02 01 00"
                                   "02 01 01 30 82 00 0d 30 82 00 09 06 05 2b 06 01 09 01 04 00"));
    EXPECT_EQ(requests[3].size(), 8000u) << "a message that cannot be built is sent as the whole buffer";
    EXPECT_EQ(requests[3].find_last_not_of('\0'), 33u) << "zeros follow what was built";
    EXPECT_TRUE(Logged("an OID of 133 sub-identifiers is not sent"));
    EXPECT_TRUE(Logged("cannot be built or does not fit"));
    EXPECT_TRUE(Logged("no answer from 127.0.0.1 port"));
    for (const auto& [type, line] : {std::pair(snmpGet, "is not asked"), {snmpWalk, "is asked no further"}}) {
        const std::size_t before = LogText().size();
        const ScriptedDevice device([](auto) { return std::vector{EncodeAnswer({})}; });
        ::testing::internal::CaptureStdout();
        EXPECT_EQ(SendRequest({.port = device.port(), .type = type, .oids = {".1", "1"}, .fallback = &fallback}),
                  &fallback);
        EXPECT_EQ(::testing::internal::GetCapturedStdout(), "Invalid OID Format\nGetSNMP Response returns NULL\n");
        EXPECT_THAT(LogText().substr(before), HasSubstr(line));
    }
    const Replaced unanswered(&platform::SocketOperations::select, [](auto&&...) { return platform::error::success; });
    EXPECT_EQ(AnswerText({.port = walk.port, .oids = {sysName, sysDescr}, .fallback = &fallback}),
              "0: (null) | (null)");
    AnswerText({.port = walk.port, .oids = {"x1.3"}});
    EXPECT_TRUE(Logged("the numbers of \"x1.3\" do not match its dots"));
    EXPECT_EQ(SendRequest({.fallback = &fallback}), &fallback);
    EXPECT_EQ(SendRequest({.type = 3, .fallback = &fallback}), nullptr);
}

TEST_F(SnmpManager, TakesAnswersOfTheDeviceAloneIfItHasTo) {
    const std::string answer = EncodeAnswer({.variables = {Variable(1, 0x04, "v")}});
    const std::string forged = EncodeAnswer({.variables = {Variable(1, 0x04, "w")}});
    int strangers = 0;
    platform::SocketOperations sockets = platform::Sockets();
    sockets.recvfrom = [&strangers, next = sockets.recvfrom](auto socket, void* to, auto room,
                                                             platform::SocketAddress& peer, auto& received) {
        const platform::Error result = next(socket, to, room, peer, received);
        if (strangers-- > 0) peer.address = {192, 0, 2, 9};
        if (received == 1) return platform::Error{10040};  // as if it were too long
        return result;
    };
    // The device is done when it has sent its datagrams: a wait for more is over at once.
    int waits = 0;
    std::size_t sent = 0;
    sockets.select = [&, next = sockets.select](auto socket, auto microseconds, bool& ready) {
        const bool isOver = static_cast<std::size_t>(++waits) > sent;
        EXPECT_LE(microseconds, 1000000);
        return isOver ? platform::error::success : next(socket, microseconds, ready);
    };
    const struct {
        const char16_t* setting;
        int strangers;  // that many datagrams come from elsewhere
        std::vector<std::string> datagrams;
        const char* expected;
        const char* logged;  // null: nothing is skipped
        SentFrom from = SentFrom::ownPort;
    } rows[] = {
        {u"No", 1, {forged, answer}, "1: .1.3.6.1.9.1 4:w", nullptr},
        {u"Yes", 0, {answer}, "1: .1.3.6.1.9.1 4:v", nullptr, SentFrom::anotherPort},
        {u"yes", 3, {forged, "", forged, answer}, "1: .1.3.6.1.9.1 4:v", "3 datagrams from elsewhere than 127.0.0.1"},
        {u"yes", 2, {forged, forged}, "0: (null)", "no answer from 127.0.0.1"},
        {u"yes", 0, {"?", answer}, "0: (null)", "receiving the answer of 127.0.0.1 failed, error 10040"},
        {u"yes", 1, {"?", answer}, "1: .1.3.6.1.9.1 4:v", "from 192.0.2.9 is skipped: only 127.0.0.1 itself"},
        {u"on", 1, {forged, answer}, "1: .1.3.6.1.9.1 4:v", "SNMPCheckSource is neither yes nor no"},
        {u"on", 1, {forged, answer}, "1: .1.3.6.1.9.1 4:v", "from 192.0.2.9 is skipped: only 127.0.0.1 itself"},
    };
    for (const auto& row : rows) {
        writeValue(platform::RootKey::localMachine, monitoringKeyPath, u"SNMPCheckSource", row.setting,
                   platform::RegistryType::text);
        const ScriptedDevice device([&row](std::string_view) { return row.datagrams; }, row.from);
        const platform::ScopedOperations scoped(sockets);
        const std::size_t before = LogText().size();
        strangers = row.strangers;
        waits = 0;
        sent = row.datagrams.size();
        EXPECT_EQ(AnswerText({.port = device.port(), .oids = {".1.3.6.1.9.1"}}), row.expected)
            << testing::PrintToString(row.logged);
        if (row.logged) {
            EXPECT_GE(TimesLogged(row.logged, before), 1);
        }
        EXPECT_LE(TimesLogged("is skipped", before), row.logged ? 1 : 0);
    }
    EXPECT_EQ(TimesLogged("SNMPCheckSource is neither yes nor no"), 1);
}

TEST_F(SnmpManager, TakesWhatReachesItsSocketFirst) {
    const std::string answer = EncodeAnswer({.variables = {Variable(1, 0x04, "v")}});
    const std::string other = EncodeAnswer({.variables = {Variable(2, 0x04, "w")}});
    const std::string half = answer.substr(0, answer.size() / 2), error = EncodeAnswer({.errorStatus = 103});
    const std::string more =
        EncodeAnswer({.variables = {Variable(1, 2, "\x01"), Variable(2, 2, "\x02"), Variable(3, 2, "\x03")}});
    const auto sized = [](std::size_t length) {
        const std::size_t rest = EncodeAnswer({.variables = {Variable(1, 0x04, std::string(7000, 'x'))}}).size() - 7000;
        return EncodeAnswer({.variables = {Variable(1, 0x04, std::string(length - rest, 'x'))}});
    };
    const auto holding = [](std::uint8_t tag, std::string_view hex) {
        return std::vector{EncodeAnswer({.variables = {Variable(1, tag, FromHex(hex))}})};
    };
    const std::string nothing = "0: (null) | (null)";
    struct Row {
        const char* title;
        std::vector<std::string> datagrams;
        std::string expected;
        const char* line = "";
        SentFrom from = SentFrom::ownPort;
    };
    for (const Row& row : std::vector<Row>{
             {"two answers", {other, answer}, "0: .1.3.6.1.9.2 4:w | (null)", "", SentFrom::anotherPort},
             {"more values than asked for", {more}, "1: .1.3.6.1.9.1 2:1 | .1.3.6.1.9.2 2:2"},
             {"an empty datagram", {""}, nothing},
             {"half a message", {half}, nothing, "SnmpGetOperation :: 127.0.0.1 sends what cannot be read"},
             {"the error status of half a message", {error}, nothing, "reports the error status 103 at value 0"},
             {"the longest message", {sized(7989)}, "0: .1.3.6.1.9.1 4:xxxxxxxxxxxxxxxxxxxxxxx"},
             {"one byte too long", {sized(7990)}, nothing},
             {"an integer of five bytes", holding(0x02, "00 00 00 00 07"), "0: .1.3.6.1.9.1 2:-1 | (null)"},
             {"64 bits in nine bytes", holding(0x46, "09 7f ff ff ff ff ff ff ff"),
              "0: .1.3.6.1.9.1 70:9223372036854775807 | (null)"},
             {"an address of three bytes", holding(0x40, "01 02 03"), "0: .1.3.6.1.9.1 64:1.2.3 | (null)"},
             {"an address of 24 bytes", holding(0x40, std::string(48, '1')), "0: .1.3.6.1.9.1 64:17.17.17.17 | (null)"},
             {"an OID that loses its first byte", holding(0x06, "2a 06 01"), "0: .1.3.6.1.9.1 6:.6.1.0.0 | (null)"},
             {"an OID that wraps", holding(0x06, "2b 87 ff ff ff 7f"), "0: .1.3.6.1.9.1 6:.1.3.2147483647 | (null)"},
         }) {
        SCOPED_TRACE(row.title);
        const ScriptedDevice device([&row](std::string_view) { return row.datagrams; }, row.from);
        const Request request{.port = device.port(), .oids = {".1.3.6.1.9.1", ".1.3.6.1.9.2"}};
        const std::size_t before = LogText().size();
        EXPECT_THAT(AnswerText(request), StartsWith(row.expected));
        const std::string logged = LogText().substr(before);
        EXPECT_THAT(logged, HasSubstr(row.line));
        // Windows logs one line more for a cut datagram.
        EXPECT_LE(std::count(logged.begin(), logged.end(), ':'), 10) << "one line";
        EXPECT_THAT(AnswerText(request), StartsWith(row.expected)) << "the next exchange has another socket";
    }
}

TEST_F(SnmpManager, StartsItselfWhenTheServerHasClearedTheFlag) {
    const std::string tower = Item(0x30, Item(0x06, FromHex("2b 06 01 02 01 01 05 00")) + Item(0x04, "tower"));
    const ScriptedDevice device([&tower](auto) { return std::vector{EncodeAnswer({.variables = {tower}})}; });
    const std::filesystem::path ownLog = folder / "monitoring" / "logs" / "SNMP_agent.log";
    const Request request{.port = device.port(), .oids = {sysName}};
    EXPECT_EQ(AnswerText(request), "1: .1.3.6.1.2.1.1.5.0 4:tower");
    EXPECT_FALSE(std::filesystem::exists(ownLog)) << "the flag of a running agent is set";

    agentState.gv_agentRunFlag = 0x0100;
    std::filesystem::create_directory(ownLog);
    EXPECT_EQ(AnswerText(request), "null") << "the log cannot be opened";
    EXPECT_EQ(agentState.gv_agentRunFlag, 0x0100);
    std::filesystem::remove(ownLog);
    const platform::FileHandle agentsLog = logState.gv_logFile;
    Log1("before");
    logState.gv_logLevel = 3;
    platform::SocketOperations sockets = platform::Sockets();
    sockets.bind = [](auto&&...) { return platform::error::generalFailure; };
    static std::vector<int> stages;
    static int failing;
    snmp::processingHooks.service = [](std::int32_t stage) {
        stages.push_back(stage);
        return static_cast<std::uint8_t>(stage == failing ? 99 : 1);
    };
    for (const char* line :
         {"prior to Service startup!!!\n", "after service startup!!!\n", "start SNMP Service !!!\n"}) {
        const platform::ScopedOperations unbound(++failing == 3 ? sockets : platform::Sockets());
        EXPECT_EQ(AnswerText(request), "null");
        EXPECT_THAT(ReadText(ownLog), HasSubstr(line));
    }
    EXPECT_EQ(stages, (std::vector{1, 1, 2, 1}));
    snmp::processingHooks = {};
    EXPECT_EQ(AnswerText(request), "1: .1.3.6.1.2.1.1.5.0 4:tower");
    EXPECT_EQ(agentState.gv_agentRunFlag, 0x0101);
    logState.gv_logMaxSize = 1;
    Log1("after");
    const std::string log = ReadText(ownLog);
    EXPECT_THAT(log, StartsWith("Sablewire Agent Toolkit 6.4.0 \n"));
    EXPECT_THAT(log, HasSubstr("Sending PDU to : 127.0.0.1 at"));
    EXPECT_THAT(log, HasSubstr(" after"));
    EXPECT_TRUE(Logged("before"));
    EXPECT_FALSE(Logged("after")) << "the agent logs to the engine's log, which is not rotated";

    logState.gv_logLevel = 1;
    for (const bool isAgents : {false, true}) {
        snmp::WriteToolkitLine(std::string(5'242'879 - std::filesystem::file_size(ownLog), '.'));
        isAgents ? Log1("over") : snmp::WriteToolkitLine("over");
        EXPECT_LT(ReadText(ownLog).size(), 40U) << "restarted at its limit";
        EXPECT_THAT(ReadText(ownLog), testing::EndsWith("over"));
    }
    platform::Files().CloseHandle(agentsLog);  // otherwise its folder cannot be removed
}

}  // namespace
}  // namespace kv::test

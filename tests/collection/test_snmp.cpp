// SNMP records: what is asked of devices, real ones and some that say what a test wants, and what the record says.
#include <fmt/format.h>
#include <memory>

#include "collection/collect.h"
#include "foundation/agent_state.h"
#include "foundation/file_utils.h"
#include "jsontext/hash_json.h"
#include "platform/sockets.h"
#include "platform/utf.h"
#include "tests/support/snmp_devices.h"
#include "tests/support/test_agent.h"
#include "tests/support/virtual_clock.h"

namespace kv::test {
namespace {

class SnmpCollection : public TestAgent {
  protected:
    SnmpCollection() {
        agentState.gv_agentKey.publish(u"K");
        agentState.gv_custID = u"Acme";
        agentState.gv_timeDiff = 3600;
        agentState.gv_SNMPTimeout.publish(u"1");
    }

    /// The text of the record file of a poll of 127.0.0.1. So many waits for an answer end at once, before it comes.
    std::string Poll(int port, const std::string& members, int silent = 0) {
        platform::SocketOperations sockets = platform::Sockets();
        sockets.select = [&silent, next = sockets.select](auto socket, auto microseconds, bool& ready) {
            return silent-- > 0 ? platform::error::success : next(socket, microseconds, ready);
        };
        sockets.sendto = [this, next = sockets.sendto](auto&&... arguments) {
            ++attempts;
            return next(arguments...);
        };
        const platform::ScopedOperations scoped(sockets);
        attempts = 0;
        const HashTablePtr record = MakeHashTable();
        const std::string json =
            fmt::format(R"({{"DEVICE_NAME":"127.0.0.1","SNMP_PORT":{},"SNMP_VERSION":"v2c",{}}})", port, members);
        EXPECT_TRUE(JSONTextToHash(record.get(), platform::WideFromUtf8(json)).ok) << json;
        CollectSNMPData(record.get(), u"false");
        const std::string name = fmt::format("Agent_K_{}.txt", agentState.gv_ocLastCreatedJSONNum.load());
        return platform::Utf8FromWide(TextFromUtf16LittleEndian(Read(data / name)));
    }

    const VirtualClock clock;
    int attempts = 0;
};

/// The variable .1.3.6.1.9.LAST.
std::string Variable(char last, std::uint8_t tag, std::string_view content) {
    return Item(0x30, Item(0x06, FromHex("2b 06 01 09") + last) + Item(tag, content));
}

TEST_F(SnmpCollection, WritesWhatARealDeviceSays) {
    const SnmpDaemon device("sysName tower\nsysDescr a box\nextend n /usr/bin/seq 1 3");
    EXPECT_EQ(Poll(device.port(), R"("OID":".1.3.6.1.2.1.1.5.0,,.1.3.6.1.2.1.1.1.0","PROTOCOL":"POLL","POLL_ID":7,
                                     "COMMUNITY":"public","AGENT_KEY":"S1","POLICY_NAME":"p")"),
              R"({ "POLICY_NAME": "p", "AGENTKEY": "S1", "PROTOCOL": "POLL", "MSPCUSTOMERID": "Acme", "ID": "7", )"
              R"("DATACOLLECTTIME": "1772705107", "STATUS": "SUCCESS", ".1.3.6.1.2.1.1.1.0": )"
              R"({ ".1.3.6.1.2.1.1.1.0": "a box" }, ".1.3.6.1.2.1.1.5.0": { ".1.3.6.1.2.1.1.5.0": "tower" }, )"
              R"("TYPE": "4", "OID": ".1.3.6.1.2.1.1.5.0,,.1.3.6.1.2.1.1.1.0" })");
    const std::string lines = ".1.3.6.1.4.1.8072.1.3.2.4.1.2.1.110";
    EXPECT_EQ(Poll(device.port(), fmt::format(R"("OID":"{}","IS_MULTIPLE_POLLED_DATA":"TRUE")", lines)),
              fmt::format(R"({{ "IS_MULTIPLE_POLLED_DATA": "TRUE", "PROTOCOL": "", "MSPCUSTOMERID": "Acme", "ID": "", )"
                          R"("DATACOLLECTTIME": "1772705107", "STATUS": "SUCCESS", "{0}": {{ "{0}.3": "3", )"
                          R"("{0}.2": "2", "{0}.1": "1" }}, "TYPE": "4", "OID": "{0}" }})",
                          lines));
    EXPECT_EQ(
        Poll(device.port(), R"("OID":".1.3.6.1.2.1.1.5.0","COMMUNITY":"wrong","PROTOCOL":"SPOLL","POLL_ID":"8")", 2),
        R"({ "PROTOCOL": "SPOLL", "MSPCUSTOMERID": "Acme", "ID": "8", "DATACOLLECTTIME": "1772705107", )"
        R"("STATUS": "FAILURE", "OID": ".1.3.6.1.2.1.1.5.0" })");
    EXPECT_EQ(attempts, 2);
    for (const char* line : {"SNMP record 7 of device 127.0.0.1 :: COMMUNITY", "Var value is null"})
        EXPECT_FALSE(Logged(line)) << line;
    EXPECT_TRUE(Logged("The poll of device 127.0.0.1 for .1.3.6.1.2.1.1.5.0 failed"));
    EXPECT_EQ(FilesIn(data).size(), 3U);
}

TEST_F(SnmpCollection, MakesTheMostOfWhatComes) {
    const std::string a = Variable(1, 0x02, "\x07"), b = Variable(2, 0x04, "x");
    const std::string tableA = R"(".1.3.6.1.9.1": { ".1.3.6.1.9.1": "7" }, "TYPE": "2", )";
    constexpr char both[] = R"("OID":".1.3.6.1.9.1,.1.3.6.1.9.2")";
    const struct {
        const char* title;
        std::string members;
        int silent;                          // attempts without an answer
        std::vector<std::string> variables;  // of the answers after these
        std::string record;                  // from STATUS up to OID
        int attempts;
        const char* logged;
    } rows[] = {
        {"answered at the second attempt",
         R"("PROTOCOL":"spoll",)",
         1,
         {a, b},
         R"("SUCCESS", ".1.3.6.1.9.2": { ".1.3.6.1.9.2": "x" }, )" + tableA,
         2,
         "Going to retry2"},
        {"no second attempt", R"("PROTOCOL":"POLL",)", 1, {a, b}, R"("FAILURE", )", 1, "Hence, quiting!!!"},
        {"one of two, twice", R"("PROTOCOL":"SPOLL",)", 0, {a}, R"("FAILURE", )" + tableA, 2, "Going to retry2"},
        {"exception behind a value",
         "",
         0,
         {a, Variable(2, 0x81, "")},
         R"("SUCCESS", ".1.3.6.1.9.2": { }, )" + tableA,
         1,
         "Var value is null"},
        {"nulls only",
         R"("PROTOCOL":"SPOLL",)",
         0,
         {Variable(1, 0x05, ""), Variable(2, 0x05, "")},
         R"("FAILURE", ".1.3.6.1.9.2": { }, ".1.3.6.1.9.1": { }, )",
         1,
         "Updating returnMessage as FAILURE"},
        {"bytes",
         "",
         0,
         {Variable(1, 0x04, FromHex("ff 00 41 00")), Variable(2, 0x04, FromHex("c3 a9 00"))},
         R"("SUCCESS", ".1.3.6.1.9.2": { ".1.3.6.1.9.2": "é" }, ".1.3.6.1.9.1": { ".1.3.6.1.9.1": "ÿ�A" }, "TYPE": "4", )",
         1,
         ""},
        {"walk without an answer",
         R"("PROTOCOL":"SPOLL","IS_MULTIPLE_POLLED_DATA":true,)",
         2,
         {},
         R"("FAILURE", )",
         2,
         "Going to retry!!!"},
        {"no device", R"("DEVICE_NAME":"",)", 0, {a, b}, R"("FAILURE", )", 0, "a record without device is not polled"},
        {"odd port",
         R"("SNMP_PORT":"70000",)",
         1,
         {},
         R"("FAILURE", )",
         1,
         "The port 70000 is no number from 1 to 65535, 161 is taken"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.title);
        const ScriptedDevice device([&row, silent = row.silent](std::string_view) mutable {
            return silent-- > 0 ? std::vector<std::string>() : std::vector{MessageOf({.variables = row.variables})};
        });
        const std::string record = Poll(device.port(), row.members + both, row.silent);
        const std::size_t start = record.find("\"STATUS\": ") + 10;
        EXPECT_EQ(record.substr(start, record.rfind("\"OID\"") - start), row.record);
        EXPECT_EQ(attempts, row.attempts);
        EXPECT_TRUE(Logged(row.logged)) << row.logged;
    }
    agentState.gv_SNMPTimeout.publish(u"2148");
    EXPECT_NE(Poll(9, both, 1).find("FAILURE"), std::string::npos);
    EXPECT_TRUE(Logged("The timeout 2148 is no number from 1 to 2147, 5 is taken"));
}

}  // namespace
}  // namespace kv::test

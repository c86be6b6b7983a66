// Messages byte by byte, and failures of their transport.
#include <algorithm>
#include <fmt/format.h>
#include <memory>
#include <tuple>
#include <utility>

#include "platform/clock.h"
#include "snmp/message.h"
#include "snmp/processing_hooks.h"
#include "snmp/toolkit_log.h"
#include "snmp/udp_transport.h"
#include "snmp/var_bind.h"
#include "tests/support/snmp_devices.h"
#include "tests/support/test_agent.h"

namespace kv::snmp::test {

namespace {

using kv::test::EncodeAnswer;
using kv::test::FromHex;
using kv::test::Item;

struct SnmpMessage : kv::test::TestAgent {
    SnmpMessage() { SetToolkitLogLevel(4); }
    ~SnmpMessage() override { SetToolkitLogLevel(0); }
};

struct Variable {
    std::vector<std::uint32_t> name;
    std::uint8_t type = tag::octetString;
    std::string value = {};
};

SnmpPduPtr MakePdu(std::int32_t version, std::uint8_t command, const std::vector<Variable>& variables) {
    TkVector list{};
    for (const Variable& one : variables) {
        auto* varBind = CreateAVarBind(one.name.data(), static_cast<std::int32_t>(one.name.size()), one.type,
                                       one.value.data(), static_cast<std::int32_t>(one.value.size()));
        AddElement(&list, new TkVectorNode{varBind, nullptr});
    }
    SnmpPduPtr pdu(CreateSnmpPdu(version, "public", command, 1, 0, 1, &list));
    FreeVector(&list);
    pdu->enterpriseOid = new std::uint32_t[]{1, 3, 6, 1, 4, 1, 8072};
    pdu->enterpriseOidLength = 7;
    pdu->agentAddress = {10, 0, 0, 7};
    pdu->genericTrap = 6;
    pdu->specificTrap = 17;
    pdu->timeStamp = 4294967295;
    return pdu;
}

/// Parses from a block that ends where a parser has to stop.
std::uint8_t ParseMessage(std::string_view message, SnmpPdu* pdu) {
    const auto block = std::make_unique<std::uint8_t[]>(message.size() + asnReadAhead);
    std::copy(message.begin(), message.end(), block.get());
    return ParseSnmpMessageForPdu(block.get(), static_cast<std::int32_t>(message.size()), pdu);
}

/// "1.3.6=2/4 " for each variable: name, type and length of the value.
std::string VariablesText(const SnmpPdu& pdu) {
    std::string text;
    for (TkVectorNode* node = pdu.varBinds.head; node != nullptr; node = node->next) {
        const auto& one = *static_cast<const VarBind*>(node->data);
        text += fmt::format("{}={}/{} ", fmt::join(one.oid, one.oid + one.oidLength, "."), one.type, one.valueLength);
    }
    return text;
}

const std::string shortName = FromHex("06 03 2b 06 01");

}  // namespace

TEST_F(SnmpMessage, RequestsAreTheseBytes) {
    const std::vector<Variable> description{{{1, 3, 6, 1, 2, 1, 1, 1, 0}}};
    const std::vector<Variable> two{{{1, 3, 300}}, {{2, 100, 1}}};
    const std::vector<Variable> address{{{1, 3, 1}, tag::ipAddress, "10.0.0.1"}};
    const std::string fields = " 020101 020100 020101 ";
    const std::string variable = fields + "30820010 3082000c 06082b06010201010100 0400";
    const struct {
        const char* title;
        std::int32_t version;
        std::uint8_t command;
        std::vector<Variable> variables;
        std::string hex;
        const char* line = "";
        std::int32_t room = messageBufferSize;
    } rows[] = {
        {"get v1", 0, 0xA0, description, "3082002c 020100 04067075626c6963 a082001d" + variable},
        {"two names", 1, 0xA0, two,
         "30820032 020101 04067075626c6963 a0820023" + fields +
             "30820016 30820007 06032b822c 0400 30820007 0603813401 0400"},
        {"an address as four bytes", 1, 0xA3, address,
         "3082002a 020101 04067075626c6963 a382001b" + fields + "3082000e 3082000a 06022b01 40040a000001"},
        {"version 3, without an envelope and four bytes too long", 3, 0xA0, description, "30820021" + variable},
        {"version 2", 2, 0xA0, description, "", "Supported SNMP versions are V1, V2c and V3.\n"},
        {"trap v1", 0, 0xA4, description,
         "3082003f 020100 04067075626c6963 a4820030 06072b06010401bf08 40040a000007 020106 020111 430500ffffffff" +
             variable.substr(fields.size())},
        {"no room for a second variable", 1, 0xA0, two, "", "\n 1. Too big respone PDU\n", 45},
        {"no room for the list", 1, 0xA0, two, "", "not enough space in output packet", 31},
        {"no room for the header", 1, 0xA0, two, "", "Unable to encode SNMP message length and sequnce type. !!!\n", 3},
    };
    for (const auto& row : rows) {
        const std::size_t logged = LogText().size();
        const SnmpPduPtr pdu = MakePdu(row.version, row.command, row.variables);
        std::string buffer(static_cast<std::size_t>(row.room), '\0');
        std::int32_t size = row.room;
        CreateSnmpMsgForPdu(reinterpret_cast<std::uint8_t*>(buffer.data()), &size, pdu.get());
        EXPECT_EQ(size == row.room ? "" : buffer.substr(0, static_cast<std::size_t>(size)), FromHex(row.hex))
            << row.title;
        EXPECT_NE(LogText().find(row.line, logged), std::string::npos) << row.title;
    }
}

TEST_F(SnmpMessage, BuildingMapsTheErrorStatusAndCallsTheHook) {
    const int mapped[]{0, 1, 2, 3, 4, 5, 2, 3, 3, 3, 3, 2, 3, 5, 2, 2, 2, 2, 2, 5};
    std::string buffer(100, '\0');
    const auto build = [&buffer](SnmpPdu& pdu) {
        std::int32_t size = 100;
        return CreateSnmpMsgForPdu(reinterpret_cast<std::uint8_t*>(buffer.data()), &size, &pdu);
    };
    for (int status = 0; status < 20; ++status) {
        const SnmpPduPtr pdu = MakePdu(0, command::response, {});
        pdu->errorStatus = status;
        EXPECT_EQ(build(*pdu), 1);
        EXPECT_EQ(pdu->errorStatus, mapped[status]) << status;
        EXPECT_EQ(buffer[24], status) << "written before it is mapped";
    }
    const SnmpPduPtr bulk = MakePdu(0, command::getBulk, {});
    bulk->errorStatus = 3;
    EXPECT_EQ(build(*bulk), 1);
    EXPECT_EQ(bulk->errorStatus, 0);

    processingHooks.message = [](auto, auto, SnmpPdu* pdu) { return static_cast<std::uint8_t>(pdu->requestId == 1); };
    const SnmpPduPtr pdu = MakePdu(3, command::get, {});
    for (const auto& [asks, id, built] : {std::tuple(0, 2, 1), {1, 1, 1}, {1, 2, 0}}) {
        pdu->asksForHook = static_cast<std::uint8_t>(asks);
        pdu->requestId = id;
        EXPECT_EQ(build(*pdu), built);
    }
    processingHooks = {};
    EXPECT_EQ(build(*pdu), 1);

    const int levels[]{0, 0, 0, 2, 3, 3, 0};  // of the engine, by the agent's
    for (int level = -1; level < 7; ++level) {
        SetToolkitLogLevel(level);
        EXPECT_EQ(toolkitLogLevel, level < 0 ? 0 : levels[level]) << level;
    }
}

TEST_F(SnmpMessage, ReadsAnswersAndDropsOtherMessages) {
    const auto variable = [](std::uint8_t type, const std::string& content) {
        return Item(0x30, shortName + Item(type, content));
    };
    const auto answer = [](std::uint8_t command, const std::string& variables, std::uint8_t version = 1) {
        return EncodeAnswer({.version = version, .command = command, .variables = {variables}});
    };
    const auto withPdu = [](const std::string& hex) {
        return Item(0x30, FromHex("020101 04067075626c6963") + FromHex(hex));
    };
    const auto withName = [](std::size_t size) { return Item(0x30, Item(0x06, std::string(size, 1)) + "\4\1x"); };
    const auto withCommunity = [](std::size_t size) { return EncodeAnswer({.community = std::string(size, 'c')}); };
    const std::string one = variable(0x02, "\5");
    const std::string good = "1.3.6.1=2/4 ";
    std::string every;
    constexpr std::uint8_t types[]{2, 4, 5, 6, 64, 65, 66, 67, 68, 70, 71, 128, 129, 130};
    for (const std::uint8_t type : types) every += variable(type, type == 5 || type >= 128 ? "" : "\x2b\1\2\3");
    std::string longest = "0.1";
    for (int i = 2; i < 128; ++i) longest += ".1";
    const struct {
        const char* title;
        std::string message;
        int result;
        std::string variables = {};
        const char* line = "";
    } rows[] = {
        {"every type", answer(0xA0, every), 1,
         "1.3.6.1=2/4 1.3.6.1=4/4 1.3.6.1=5/0 1.3.6.1=6/5 1.3.6.1=64/8 1.3.6.1=65/4 1.3.6.1=66/4 1.3.6.1=67/4 "
         "1.3.6.1=68/4 1.3.6.1=70/8 1.3.6.1=71/4 1.3.6.1=128/0 1.3.6.1=129/0 1.3.6.1=130/0 "},
        {"response", answer(0xA2, one), 1, good, "\tGET-RESPONSE\n"},
        {"get, whose integer is shown", answer(0xA0, one), 1, good, "VarBind Value\t\t\t= 5\n"},
        {"getnext of version 1", answer(0xA1, one, 0), 1, good, "SNMP_V1\nCommunity Name\t\t=\tpublic\n"},
        {"trap of version 1", answer(0xA4, one), 0, "",
         "\n\nSince trap message has been received packet is dropped.\n"},
        {"inform", answer(0xA6, one), 0, "", "Invalid Command Type"},
        {"version 2", answer(0xA2, one, 2), 0, "", "Version is not a SNMP_V1 or SNMP_V2C\nPACKET DROPPED !!! \n"},
        {"without a list", withPdu("a20d 020101 020100 020100 04023132"), 1, "", "not enough space for varlist"},
        {"a broken second variable", answer(0xA2, one + "\x30\3\6\1+"), 1, "", "Unable to parse the varbind #2\n"},
        {"a broken value drops all", answer(0xA2, one + variable(0x06, "+\x86")), 0},
        {"128 sub-identifiers", answer(0xA2, withName(127)), 1, longest + "=4/1 "},
        {"129 sub-identifiers: the last counts as the value", answer(0xA2, withName(128)), 1},
        {"a community of 256 bytes", withCommunity(256), 1},
        {"a community of 257 bytes", withCommunity(257), 0, "", "Unable to decode community \n"},
        {"a request id that is not a number", withPdu("a20b 040101 020100 020100 3000"), 0, "", "decode reqid\n"},
        {"an error index that is not a number", withPdu("a20b 020101 020100 040100 3000"), 0, "", "decode errindex\n"},
        {"a header beyond the end", FromHex("30 05 02 01 01"), 0, "", "Unable to decode auth header type\n"},
        {"an envelope that is too short", "\x30\5" + answer(0xA2, one).substr(2), 1, good},
    };
    for (const auto& row : rows) {
        const std::size_t logged = LogText().size();
        const SnmpPduPtr pdu(AllocateAndInitSnmpPdu());
        EXPECT_EQ(ParseMessage(row.message, pdu.get()), row.result) << row.title;
        EXPECT_EQ(VariablesText(*pdu), row.variables) << row.title;
        DisplaySnmpPduInfo(pdu.get());
        EXPECT_NE(LogText().find(row.line, logged), std::string::npos) << row.title;
    }
}

TEST_F(SnmpMessage, TriesAgainUntilItsLimits) {
    int failures = 0, calls = 0, open = 0;
    std::uint64_t now = 0, tick = 0, waited = 0;
    const auto result = [&] { return ++calls > failures ? platform::error::success : platform::error::generalFailure; };
    platform::SocketOperations sockets = platform::Sockets();
    sockets.socket = [&](auto& socket) {
        ++open;
        socket = 1;
        return platform::error::success;
    };
    sockets.closesocket = [&](auto) {
        --open;
        return platform::error::success;
    };
    sockets.bind = [&](auto&&...) { return result(); };
    sockets.sendto = [&](auto&&...) { return result(); };
    sockets.select = [&](auto, auto, bool& ready) {
        now += waited;
        ready = true;
        return result();
    };
    sockets.recvfrom = [&](auto, auto, auto, auto& peer, auto&) {
        peer = {{10, 0, 0, 7}, 99};
        return result();
    };
    const platform::ScopedOperations scopedSockets(sockets);
    const kv::test::Replaced clock(&platform::ClockOperations::GetTickCount64, [&] { return now += tick; });

    const TransportDomainInfoPtr info(CreateTransportDomainInfo(8001, 161, "127.0.0.1"));
    const SnmpPduPtr pdu = MakePdu(1, 0xA0, {});
    const auto start = [&] { return OpenSnmpSession(info.get()); };
    const auto send = [&] { return SendSnmpPdu(info.get(), pdu.get()); };
    const auto wait = [&] { return WaitForTdInfoResp(info.get(), 2000000); };
    const auto read = [&] { return ReadAndParseSnmpMessage(info.get(), pdu.get()); };
    /// The result of a step whose first attempts fail, and how often it asked the system.
    const auto outcome = [&](const auto& step, int failing) {
        failures = failing;
        calls = 0;
        const auto value = static_cast<int>(step());
        return std::pair(value, calls);
    };
    EXPECT_EQ(outcome(start, 1), std::pair(0, 1));
    EXPECT_TRUE(Logged("Bind Failed,Unable to start session at : udp port 8001\n"));
    EXPECT_EQ(open, 0);
    EXPECT_EQ(outcome(send, 2), std::pair(1, 3));
    EXPECT_EQ(outcome(send, 3), std::pair(0, 3));
    EXPECT_TRUE(Logged("sending to 127.0.0.1 port 161 failed, error 31"));
    EXPECT_EQ(outcome(start, 0), std::pair(1, 1));
    EXPECT_EQ(outcome(wait, 1000), std::pair(1, 1001));
    EXPECT_EQ(outcome(wait, 1001), std::pair(0, 1001)) << "time stands still";
    tick = 500;
    EXPECT_EQ(outcome(wait, 1001), std::pair(0, 4)) << "time passes";
    tick = 0;
    waited = 1900;
    EXPECT_EQ(outcome(wait, 1001), std::pair(0, 2)) << "a refusal takes long";
    EXPECT_EQ(outcome(read, 1), std::pair(0, 1));
    EXPECT_STREQ(info->address->remoteHost.data(), "127.0.0.1");
    EXPECT_EQ(outcome(read, 0), std::pair(0, 1)) << "an empty message";
    EXPECT_STREQ(info->address->remoteHost.data(), "10.0.0.7") << "the sender's address";
    EXPECT_EQ(info->address->remotePort, 99);
    CloseSnmpSession(info.get());
    EXPECT_EQ(open, 0);
}

}  // namespace kv::snmp::test

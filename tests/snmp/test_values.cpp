// Object identifiers, values, variables, their lists with the locks, and PDUs.
#include <functional>
#include <gmock/gmock.h>
#include <string>
#include <vector>

#include "snmp/asn.h"
#include "snmp/oid.h"
#include "snmp/pdu.h"
#include "snmp/toolkit_log.h"
#include "snmp/value_text.h"
#include "snmp/var_bind.h"
#include "tests/support/test_agent.h"
#include "tests/support/virtual_clock.h"

namespace kv::snmp {
namespace {

using ::testing::ElementsAre;
using Bytes = std::vector<std::uint8_t>;
using Oid = std::vector<std::uint32_t>;

struct SnmpValues : test::TestAgent {
    SnmpValues() { toolkitLogLevel = 3; }
    ~SnmpValues() override { toolkitLogLevel = 0; }
};

void Append(TkVector* list, VarBind* varBind) { ASSERT_EQ(AddElement(list, new TkVectorNode{varBind, nullptr}), 1); }
const VarBind& At(TkVector* list, std::int32_t index) { return *static_cast<VarBind*>(ElementAt(list, index)->data); }

TEST_F(SnmpValues, TextsOfOidsAndAddresses) {
    struct Row {
        const char* title;
        std::string text;
        bool isAddress;
        std::int32_t count;
        Oid subIds;
        const char* written = nullptr;  // when not as read
    };
    const std::string longPart(20, '1');
    const Row rows[] = {
        {"an OID", ".1.3.6.1.2.1", false, 6, {1, 3, 6, 1, 2, 1}},
        {"zero", ".0", false, 1, {0}},
        {"a zero of two digits", ".00", false, 1, {0}, ".0"},
        {"signs", ".1.-5.+7", false, 3, {1, 4294967291, 7}, ".1..7"},
        {"from 2^31 on only the dot", ".1.2147483648", false, 2, {1, 2147483648}, ".1."},
        {"the largest that is read", ".4294967294.10", false, 2, {4294967294, 10}, "..10"},
        {"taken for a failure", ".1.4294967295", false, -1, {}},
        {"wrapped to 0", ".1.4294967296", false, -1, {}},
        {"19 characters", ".0000000000000000007", false, 1, {7}, ".7"},
        {"20 characters", "." + longPart, false, -1, {}},
        {"no dot in front", "1.3.6", false, -1, {}},
        {"a letter in front goes unseen, the count is wrong", "x1.3", false, 0, {}},
        {"a dot", ".", false, -1, {}},
        {"an empty part", ".1..3", false, -1, {}},
        {"a lone sign", ".1.-", false, -1, {}},
        {"a NUL", std::string(".1.3\0", 5), false, -1, {}},
        {"an address", "10.0.0.255", true, 4, {10, 0, 0, 255}, ".10.0.0.255"},
        {"an address too short", "10.0.0", true, -1, {}},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.title);
        SubIds subIds;
        const std::int32_t count = ConvertToOidOrIpFromString(subIds, row.text, row.isAddress);
        EXPECT_EQ(count, row.count);
        if (count <= 0) continue;
        EXPECT_EQ(Oid(subIds.get(), subIds.get() + count), row.subIds);
        std::string written(OidTextRoom(count), '#');
        EXPECT_EQ(ConvertToStringFromOid(subIds.get(), count, written.data()), 1);
        EXPECT_STREQ(written.c_str(), row.written ? row.written : row.text.c_str());
    }
    EXPECT_TRUE(Logged("Incorrect format of OID\n"));
    EXPECT_TRUE(Logged("Incorrect format of IpAddress\n"));
    Bytes bytes(4, 9);
    EXPECT_EQ(ConvertToIpAddFromString(bytes.data(), "10.0.256.1, and more", 10), 4);
    EXPECT_EQ(ConvertToIpAddFromString(bytes.data(), "1.2.3", 5), 3);
    EXPECT_THAT(bytes, ElementsAre(10, 0, 0, 1));
    EXPECT_TRUE(Logged("Invalid length for IP address !!!\n"));
}

TEST_F(SnmpValues, OidsCompareAsUnsignedNumbersAndAPrefixComesFirst) {
    const std::uint32_t a[] = {1, 3, 6};
    const std::uint32_t b[] = {1, 4294967295};
    EXPECT_EQ(CompareOid(a, 2, a, 3), -1);
    EXPECT_EQ(CompareOid(a, 3, a, 2), 1);
    EXPECT_EQ(CompareOid(a, 3, a, 3), 0);
    EXPECT_EQ(CompareOid(b, 2, a, 3), 1);
    EXPECT_EQ(CompareOid(nullptr, 0, a, 3), -1);
}

TEST_F(SnmpValues, WithoutContentThereIsAValueToo) {
    EXPECT_EQ(ConvertToInteger(nullptr, 0), 0);
    std::int32_t count = 0;
    const SubIds subIds = DecodeOID(nullptr, 0, &count);
    ASSERT_EQ(count, 1);
    EXPECT_EQ(subIds[0], 0u);
    EXPECT_EQ(DecodeOID(Bytes{0x2B, 6, 0x81}.data(), 3, &count), nullptr);
    EXPECT_EQ(count, 0);
}

TEST_F(SnmpValues, VariablesAreCopiedOrChangeHands) {
    const VarBindListPtr source = MakeVarBindList();
    const VarBindListPtr target = MakeVarBindList();
    CopyVarBind(target.get(), source.get(), 1);
    EXPECT_TRUE(Logged("nodePtr value is NULL\n"));
    for (std::uint32_t i = 1; i <= 3; ++i) {
        Append(source.get(), CreateAVarBind(&i, 1, tag::octetString, "value", static_cast<std::int32_t>(i - 1)));
        auto* last = static_cast<VarBind*>(source->tail->data);
        last->position = static_cast<std::int32_t>(i);
        last->reserved = 77;
        last->received = 1;
    }
    for (const int number : {0, -1, 4, 5}) CopyVarBind(target.get(), source.get(), number);
    CopyVarBind(target.get(), nullptr, 1);
    EXPECT_EQ(target->count, 0);
    for (const int number : {2, 3, 1}) CopyVarBind(target.get(), source.get(), number);
    std::string texts;
    for (std::int32_t i = 0; i < target->count; ++i) {
        const VarBind& copy = At(target.get(), i);
        EXPECT_EQ(copy.reserved, 77u);
        EXPECT_EQ(copy.received, 0);
        texts += std::to_string(copy.position) + (copy.value ? static_cast<const char*>(copy.value) : "-") + " ";
    }
    EXPECT_EQ(texts, "2v 3va 1- ");
    for (const int index : {-1, 3}) EXPECT_EQ(ElementAt(target.get(), index), nullptr);
    EXPECT_EQ(GetNthElement(target.get(), 2, target->tail), nullptr);
    FreeVarBindList(target.get());
    EXPECT_EQ(ElementAt(target.get(), 0), nullptr);
    CopyVarBind(target.get(), source.get(), 1);  // its tail was a node of before
    EXPECT_EQ(At(target.get(), 0).position, 1);
    TakeVarBinds(target.get(), source.get());
    EXPECT_EQ(source->count, 0);
    EXPECT_EQ(target->count, 4);
    EXPECT_EQ(At(target.get(), 3).received, 1);
}

TEST_F(SnmpValues, APduTakesOverTheVariablesInEveryCase) {
    struct Row {
        std::uint8_t command;
        std::size_t communityLength;
        bool isMade;
    };
    for (const Row& row : {Row{command::get, 254, true}, {command::inform, 0, true}, {command::get, 255, false}}) {
        SCOPED_TRACE(row.communityLength);
        const std::uint32_t oid[] = {1, 3, 4711};
        const VarBindListPtr list = MakeVarBindList();
        Append(list.get(), CreateAVarBind(oid, 3, tag::octetString, nullptr, 0));
        EXPECT_NE(At(list.get(), 0).value, nullptr);  // owned, and one byte
        const std::string community(row.communityLength, 'c');
        const SnmpPduPtr pdu(CreateSnmpPdu(versionV2c, community.c_str(), row.command, 1, 0, 1, list.get()));
        ASSERT_EQ(pdu != nullptr, row.isMade);
        EXPECT_EQ(list->count, row.isMade ? 1 : 0);
        if (!pdu) continue;
        EXPECT_EQ(pdu->community, community);
        EXPECT_EQ((row.command == command::inform ? pdu->otherVarBinds : &pdu->varBinds)->count, 1);
        FreeVector(list.get());
    }
    EXPECT_TRUE(Logged("the community has 255 bytes"));
}

TEST_F(SnmpValues, AWaiterSleepsLongerEachTime) {
    TkVector list{};
    test::VirtualClock clock;
    std::vector<std::uint32_t> sleeps;
    std::size_t releasedAt = 10;
    clock.onSleep = [&](std::uint32_t milliseconds) {
        sleeps.push_back(milliseconds);
        if (sleeps.size() == releasedAt) UnsynchronizeResource(&list);  // a lock has no owner
    };
    SynchronizeResource(&list);
    EXPECT_EQ(ElementAt(&list, 0), nullptr);
    for (const auto& locked : std::initializer_list<std::function<void()>>{
             [&] { AddElement(&list, new TkVectorNode{}); }, [&] { FreeVector(&list); }}) {
        SynchronizeResource(&list);
        ++releasedAt;
        locked();
    }
    ASSERT_EQ(sleeps.size(), 12u);
    for (std::size_t i = 1; i < sleeps.size(); ++i) EXPECT_EQ(sleeps[i], sleeps[i - 1] == 90 ? 10 : sleeps[i - 1] + 10);
    EXPECT_FALSE(Logged("Alert!"));
    UnsynchronizeResource(&list);
    EXPECT_TRUE(Logged("Alert! something went wrong...\n"));
}

}  // namespace
}  // namespace kv::snmp

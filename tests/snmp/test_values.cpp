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

class SnmpValues : public test::TestAgent {
  protected:
    SnmpValues() { toolkitLogLevel = 3; }
    ~SnmpValues() override { toolkitLogLevel = 0; }
};

std::string OidText(const std::uint32_t* subIds, std::int32_t count) {
    std::string text(OidTextRoom(count), '#');
    EXPECT_EQ(ConvertToStringFromOid(subIds, count, text.data()), 1);
    return text.c_str();
}

/// A value as text, by the routine that fits its type; bytes as they are.
std::string TextOf(const VarBind& varBind) {
    if (!varBind.value) return "none";
    std::int32_t length = 0;
    const auto* words = static_cast<const std::uint32_t*>(varBind.value);
    switch (varBind.type) {
        case tag::integer:
            return ConvertToStringFromInteger(static_cast<const std::int32_t*>(varBind.value), &length).get();
        case tag::objectId:
            return OidText(words, varBind.valueLength);
        case tag::counter32:
            return ConvertToStringFromUnsignedInteger(words, &length).get();
        case tag::counter64:
            return ConvertToStringFromCounter64(words).get();
        default:
            return {static_cast<const char*>(varBind.value), static_cast<std::size_t>(varBind.valueLength)};
    }
}

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
        EXPECT_EQ(OidText(subIds.get(), count), row.written ? row.written : row.text);
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

TEST_F(SnmpValues, ContentBecomesAValueThatIsCopiedWhole) {
    struct Row {
        const char* title;
        std::uint8_t tag;
        Bytes content;
        std::int32_t length;
        std::string text;
    };
    const Row rows[] = {
        {"an integer", tag::integer, {0xFF, 0x7F}, 4, "-129"},
        {"the least", tag::integer, {0x80, 0, 0, 0}, 4, "-2147483648"},
        {"an integer of five bytes", tag::integer, {0, 0, 0, 0, 7}, 4, "-1"},
        {"an integer without content", tag::integer, {}, 4, "0"},
        {"a counter with a zero in front", tag::counter32, {0, 0xFF, 0xFF, 0xFF, 0xFE}, 4, "4294967294"},
        {"a counter of six bytes", tag::counter32, {1, 2, 0, 0, 1, 0}, 4, "256"},
        {"64 bits", tag::counter64, {0x01, 0x00, 0x00, 0x00, 0x02}, 8, "4294967298"},
        {"64 bits, all set", tag::counter64, Bytes(8, 0xFF), 8, "-1"},
        {"64 bits in nine bytes",
         tag::counter64,
         {9, 0x7F, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF},
         8,
         "9223372036854775807"},
        {"an address", tag::ipAddress, {10, 0, 200, 1}, 10, "10.0.200.1"},
        {"an address of three bytes", tag::ipAddress, {1, 2, 3}, 3, "1.2"},
        {"an address of thirty bytes", tag::ipAddress, Bytes(30, 7), 30, "7.7.7.7" + std::string(23, '\0')},
        {"bytes", tag::octetString, {'a', 0, 0xFF}, 3, std::string("a\0\xFF", 3)},
        {"no bytes", tag::octetString, {}, 0, "none"},
        {"an OID", tag::objectId, {0x2B, 6, 1, 0x81, 0x80, 0x00, 5}, 6, ".1.3.6.1.16384.5"},
        {"any other first byte loses it", tag::objectId, {0x2A, 6, 1}, 4, ".6.1.0.0"},
        {"a sub-identifier of 32 bits", tag::objectId, {0x2B, 0x87, 0xFF, 0xFF, 0xFF, 0x7F}, 3, ".1.3.2147483647"},
        {"an OID without content", tag::objectId, {}, 1, ".0"},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.title);
        const Oid name = {1, 3, static_cast<std::uint32_t>(row.content.size())};
        std::int32_t length = static_cast<std::int32_t>(row.content.size());
        VarBind* varBind = CreateAVarBind(name.data(), 3, row.tag, nullptr, 0);
        FreeValue(varBind->value);
        varBind->value = DecodeAsnSyntaxValue(row.tag, row.content.data(), &length);
        varBind->valueLength = length;
        ASSERT_NE(varBind->value, nullptr);
        EXPECT_EQ(length, row.length);
        const VarBindListPtr source = MakeVarBindList();
        const VarBindListPtr copies = MakeVarBindList();
        Append(source.get(), varBind);
        CopyVarBind(copies.get(), source.get(), 1);
        FreeVarBindList(source.get());
        const VarBind& copy = At(copies.get(), 0);
        EXPECT_EQ(TextOf(copy), row.text);
        EXPECT_EQ(Oid(copy.oid, copy.oid + copy.oidLength), name);
        EXPECT_EQ(copy.ownsValue, copy.value ? 1 : 0);
        PrintVarBind(&copy);
    }
    std::int32_t length = 3;
    EXPECT_EQ(DecodeAsnSyntaxValue(tag::objectId, Bytes{0x2B, 6, 0x81}.data(), &length), nullptr);
    EXPECT_EQ(length, 0);
    const auto address = static_cast<char*>(DecodeAsnSyntaxValue(tag::ipAddress, Bytes{1, 2, 3}.data(), &(length = 3)));
    EXPECT_STREQ(address, "1.2.3");  // of which the length lets copies keep three characters
    FreeValue(address);
    EXPECT_TRUE(Logged("VarBind Value\t\t\t= -129\n"));
    EXPECT_TRUE(Logged("VarBind Value\t\t\t=.1.3.6.1.16384.5\n"));
}

TEST_F(SnmpValues, CopiesBeginAtANumber) {
    const VarBindListPtr source = MakeVarBindList();
    const VarBindListPtr target = MakeVarBindList();
    CopyVarBinds(target.get(), source.get(), 1);
    EXPECT_TRUE(Logged("nodePtr value is NULL\n"));
    for (std::uint32_t i = 1; i <= 3; ++i) {
        Append(source.get(), CreateAVarBind(&i, 1, tag::octetString, "value", static_cast<std::int32_t>(i)));
        auto* last = static_cast<VarBind*>(source->tail->data);
        last->position = static_cast<std::int32_t>(i);
        last->reserved = 77;
        last->received = 1;
    }
    for (const int number : {0, -1, 4, 5}) CopyVarBinds(target.get(), source.get(), number);
    CopyVarBind(target.get(), nullptr, 1);
    EXPECT_EQ(target->count, 0);
    CopyVarBinds(target.get(), source.get(), 2);
    CopyVarBind(target.get(), source.get(), 1);
    std::string texts;
    for (std::int32_t i = 0; i < target->count; ++i) {
        const VarBind& copy = At(target.get(), i);
        EXPECT_EQ(copy.reserved, 77u);
        EXPECT_EQ(copy.received, 0);
        texts += std::to_string(copy.position) + TextOf(copy) + " ";
    }
    EXPECT_EQ(texts, "2va 3val 1v ");
    for (const int index : {-1, 3}) EXPECT_EQ(ElementAt(target.get(), index), nullptr);
    EXPECT_EQ(GetNthElement(target.get(), 2, target->tail), nullptr);
    FreeVarBindList(target.get());
    EXPECT_EQ(ElementAt(target.get(), 0), nullptr);
    CopyVarBind(target.get(), source.get(), 1);  // its tail was a node of before
    EXPECT_EQ(At(target.get(), 0).position, 1);
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
        DisplaySnmpPduInfo(pdu.get());
    }
    EXPECT_TRUE(Logged("the community has 255 bytes"));
    EXPECT_TRUE(Logged("VarBind OID\t\t\t=.1.3.4711\n"));
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

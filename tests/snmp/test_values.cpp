// Object identifiers, texts, variables, their lists and locks, and PDUs.
#include <gmock/gmock.h>
#include <tuple>

#include "snmp/asn.h"
#include "snmp/narrow_text.h"
#include "snmp/object_lock.h"
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
const VarBind& VariableAt(TkVector* list, std::int32_t index) {
    return *static_cast<VarBind*>(ElementAt(list, index)->data);
}

TEST_F(SnmpValues, ConvertsTextsOfOidsAndAddresses) {
    struct Row {
        const char* title;
        std::string text;
        std::int32_t count;
        Oid subIds = {};
        const char* written = nullptr;  // null: as it was read
        bool isAddress = false;
    };
    const std::string longPart(20, '1');
    constexpr bool isAddress = true;
    const Row rows[] = {
        {"an OID", ".1.3.6.1.2.1", 6, {1, 3, 6, 1, 2, 1}},
        {"a zero of two digits", ".00", 1, {0}, ".0"},
        {"signs", ".1.-5.+7", 3, {1, 4294967291, 7}, ".1..7"},
        {"from 2^31 on, only the dot is written", ".1.2147483648", 2, {1, 2147483648}, ".1."},
        {"a number that means failure", ".1.4294967295", -1, {}},
        {"a number that wraps to 0", ".1.4294967296", -1, {}},
        {"a number of 20 characters", "." + longPart, -1, {}},
        {"without the first dot", "1.3.6", -1, {}},
        {"a first letter is not noticed, the count is wrong", "x1.3", 0, {}},
        {"a dot", ".", -1, {}},
        {"an empty part", ".1..3", -1, {}},
        {"a NUL", std::string(".1.3\0", 5), -1, {}},
        {"an address", "10.0.0.255", 4, {10, 0, 0, 255}, ".10.0.0.255", isAddress},
        {"an address too short", "10.0.0", -1, {}, nullptr, isAddress},
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
    EXPECT_EQ(GetOidLength(".1.3.6", 4), 2);
    EXPECT_EQ(GetOidLength(std::string(65537, '.').c_str(), 65537), 1) << "the count has 16 bits";
}

TEST_F(SnmpValues, TakesNullTextsEverywhere) {
    EXPECT_EQ(CompareText(nullptr, nullptr), 0);
    EXPECT_EQ(CompareText(nullptr, ""), -1);
    EXPECT_EQ(CompareText("", nullptr), 1);
    EXPECT_EQ(CompareText("ab", "abc"), -'c');
    char buffer[] = "xyz";
    CopyBytes(buffer, nullptr, 2);
    EXPECT_EQ(CopyText(buffer, nullptr), nullptr);
    EXPECT_STREQ(buffer, "xyz");
    EXPECT_STREQ(CopyText(buffer, "ab"), "ab");
    EXPECT_EQ(TextLength(buffer) + TextLength(nullptr), 2);
    EXPECT_STREQ(FindCharacter("a.b.c", '.'), ".b.c");
    EXPECT_EQ(FindCharacter(nullptr, '.'), nullptr);
    NarrowText copy = std::make_unique<char[]>(1);
    EXPECT_EQ(AllocateAndCopyString(copy, nullptr), 1);
    EXPECT_EQ(copy, nullptr);

    std::int32_t count = -1;
    std::unique_ptr<std::int32_t[]> lengths;
    char** tokens = SplitString("\ta,b,,c,d", 7, ',', &count, lengths);
    EXPECT_THAT(std::vector<std::string>(tokens, tokens + count), ElementsAre("\ta", "b", "", "c"));
    EXPECT_THAT(std::vector(lengths.get(), lengths.get() + count), ElementsAre(2, 1, 0, 1));
    FreeStringArray(tokens, count);
    EXPECT_EQ(SplitString(nullptr, 3, ',', &count, lengths), nullptr);
    EXPECT_EQ(ParseDelimiter("a\tb", 3) + ParseDelimiter("a\tb", 1) + ParseDelimiter(nullptr, 3), '\t');
}

/// "2va ", the position and the value, for each variable.
std::string ListText(TkVector* list) {
    std::string text;
    for (std::int32_t i = 0; i < list->count; ++i) {
        const VarBind& one = VariableAt(list, i);
        text += std::to_string(one.position) + (one.value ? static_cast<const char*>(one.value) : "-") + " ";
    }
    return text;
}

TEST_F(SnmpValues, CopiesAndTakesVariables) {
    const VarBindListPtr source = MakeVarBindList(), target = MakeVarBindList();
    CopyVarBind(target.get(), source.get(), 1);
    EXPECT_TRUE(Logged("nodePtr value is NULL\n"));
    for (std::uint32_t i = 1; i <= 3; ++i) {
        Append(source.get(), CreateAVarBind(&i, 1, tag::octetString, "value", static_cast<std::int32_t>(i - 1)));
        auto* last = static_cast<VarBind*>(source->tail->data);
        last->position = static_cast<std::int32_t>(i);
        last->reserved = 77;
        last->received = 1;
    }
    CopyVarBind(target.get(), nullptr, 1);
    for (const int number : {0, -1, 4, 5, 2, 3, 1}) CopyVarBind(target.get(), source.get(), number);
    EXPECT_EQ(ListText(target.get()), "2v 3va 1- ");
    EXPECT_EQ(VariableAt(target.get(), 0).received, 0);
    EXPECT_EQ(VariableAt(target.get(), 0).reserved, 77u);
    for (const int index : {-1, 3}) EXPECT_EQ(ElementAt(target.get(), index), nullptr);
    EXPECT_EQ(GetNthElement(target.get(), 2, target->tail), nullptr);
    FreeVarBindList(target.get());
    EXPECT_EQ(ElementAt(target.get(), 0), nullptr);
    for (const int number : {0, 2, 4}) CopyVarBinds(target.get(), source.get(), number);
    CopyVarBinds(target.get(), target.get(), 2);
    TakeVarBinds(target.get(), source.get());
    EXPECT_EQ(source->count, 0);
    EXPECT_EQ(ListText(target.get()), "2v 3va 3va 1 2v 3va ") << "those from 2 on, twice, and all";
    EXPECT_EQ(VariableAt(target.get(), 5).received, 1);
}

TEST_F(SnmpValues, AnOrderedListTakesEachElementOnce) {
    static const auto number = [](const TkVectorNode* node) { return *static_cast<const int*>(node->data); };
    TkVector list{};
    InitVector(
        &list,
        +[](const TkVectorNode* a, const TkVectorNode* b) { return static_cast<std::int8_t>(number(a) - number(b)); });
    int numbers[50];
    for (int i = 0; i < 50; ++i) {
        numbers[i] = i * 37 % 50;
        ASSERT_EQ(AddElement(&list, new TkVectorNode{&numbers[i], nullptr}), 1);
        TkVectorNode again{&numbers[i / 2], nullptr};
        ASSERT_EQ(AddElement(&list, &again), 0);
    }
    for (std::int32_t i = 0; i < list.count; ++i) ASSERT_EQ(number(ElementAt(&list, i)), i);
    EXPECT_EQ(number(list.tail), 49);
    FreeVector(&list);
}

TEST_F(SnmpValues, APduTakesItsVariables) {
    for (const auto& [command, communityLength, isMade] :
         {std::tuple(command::get, 254, true), {command::inform, 0, true}, {command::get, 255, false}}) {
        SCOPED_TRACE(communityLength);
        const std::uint32_t oid[] = {1, 3, 4711};
        const VarBindListPtr list = MakeVarBindList();
        Append(list.get(), CreateAVarBind(oid, 3, tag::octetString, nullptr, 0));
        EXPECT_NE(VariableAt(list.get(), 0).value, nullptr);  // its own byte
        const std::string community(static_cast<std::size_t>(communityLength), 'c');
        const SnmpPduPtr pdu(CreateSnmpPdu(versionV2c, community.c_str(), command, 1, 0, 1, list.get()));
        ASSERT_EQ(pdu != nullptr, isMade);
        EXPECT_EQ(list->count, isMade ? 1 : 0);
        if (!pdu) continue;
        EXPECT_EQ(pdu->community, community);
        EXPECT_EQ((command == command::inform ? pdu->otherVarBinds : &pdu->varBinds)->count, 1);
        FreeVector(list.get());
    }
    EXPECT_TRUE(Logged("the community has 255 bytes"));
}

TEST_F(SnmpValues, AWaiterSleepsUntilTheLockIsReleased) {
    TkVector list{};
    test::VirtualClock clock;
    int sleeps = 0;
    clock.onSleep = [&](std::uint32_t) {
        if (++sleeps == 10) UnsynchronizeResource(&list);  // a lock has no owner
    };
    SynchronizeResource(&list);
    EXPECT_EQ(ElementAt(&list, 0), nullptr);
    EXPECT_EQ(sleeps, 10);
    EXPECT_FALSE(Logged("Alert!"));
    UnsynchronizeResource(&list);
    EXPECT_TRUE(Logged("Alert! something went wrong...\n"));
    SynchronizeResource(&list);
    clock.AdvanceMilliseconds(301 * 1000);
    EXPECT_EQ(HandleResource(nullptr, LockOperation::purge), 1);
    EXPECT_EQ(HandleResource(&list, LockOperation::lock), 1) << "the purge released it";
    EXPECT_EQ(SynchronizeObject(&list), 2);
    EXPECT_EQ(UnsynchronizeObject(&list), 4);
}

}  // namespace
}  // namespace kv::snmp

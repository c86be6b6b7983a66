// ASSOCIATORS OF and REFERENCES OF, over classes made up for it: a box holds books, and a shelf holds boxes.
#include <fmt/format.h>
#include <gtest/gtest.h>
#include <stdexcept>

#include "tests/support/wmi_query.h"
#include "wql/class_tree.h"
#include "wql/object_path.h"

namespace kv::test {
namespace {

using namespace wql;
using enum CimType;

using WmiAssociations = WmiTest;

struct Thing {
    std::uint32_t number;
    std::u16string name;
};

/// Who holds, and who is held.
struct Pair {
    std::uint32_t holder;
    std::u16string held;
};

// clang-format off
constexpr PropertyInfo thingProperties[] = {
    {u"Name", string, 0, "", [](const Thing& row) { return row.name; }},
    {u"Number", uint32, 0, "", [](const Thing& row) { return row.number; }},
};

constexpr PropertyInfo bookPairs[] = {
    {u"Box", reference, 0, "", [](const Pair& row) { return ObjectPath(u"KV_Box", {{u"Number", row.holder}}); }},
    {u"Item", reference, 0, "", [](const Pair& row) { return ObjectPath(u"KV_Thing", {{u"Name", row.held}}); }},
    {u"Lost", reference},
};

constexpr PropertyInfo shelfPairs[] = {
    {u"Box", reference, 0, "", [](const Pair& row) { return RelativePath(u"kv_box", {{u"number", row.held}}); }},
    {u"Shelf", reference, 0, "", [](const Pair& row) { return RelativePath(u"KV_Shelf", {{u"Number", row.holder}}); }},
};
// clang-format on

template <class Row, std::size_t count>
WmiStatus Give(const Gathering& gathering, const Row (&rows)[count]) {
    for (const Row& row : rows) {
        if (!gathering.row(&row)) break;
    }
    return wmi_status::ok;
}

const Thing books[] = {{1, u"a \"b\" \\ c"}, {2, u"second"}};
const Thing boxes[] = {{1, u"blue"}, {2, u"red"}};
const Thing shelves[] = {{7, u"only"}};
const Pair inBoxes[] = {{1, u"a \"b\" \\ c"}, {1, u"second"}, {2, u"gone"}};
const Pair onShelves[] = {{7, u"1"}, {7, u"0x2"}, {8, u"1"}};

const ClassInfo classes[] = {
    {u"KV_Thing", u"", thingProperties},
    {u"KV_Book", u"KV_Thing", thingProperties, [](const Gathering& gathering) { return Give(gathering, books); },
     u"Name"},
    {u"KV_Box", u"", thingProperties, [](const Gathering& gathering) { return Give(gathering, boxes); }, u"Number"},
    {u"KV_Shelf", u"", thingProperties, [](const Gathering& gathering) { return Give(gathering, shelves); }, u"Number"},
    {u"KV_InBox", u"", bookPairs, [](const Gathering& gathering) { return Give(gathering, inBoxes); }, u"Box,Item"},
    {u"KV_Hidden", u"", bookPairs, [](const Gathering&) { return wmi_status::accessDenied; }, u"Box,Item"},
    {u"KV_Broken", u"", bookPairs, [](const Gathering&) -> WmiStatus { throw std::runtime_error("broken"); },
     u"Box,Item"},
    {u"KV_OnShelf", u"", shelfPairs, [](const Gathering& gathering) { return Give(gathering, onShelves); },
     u"Box,Shelf"},
};
const ClassFamily family([] { return std::span<const ClassInfo>(classes); });

/// The values of each object in the order of its properties, a bar behind each; or the status.
std::string ObjectsOf(const std::string& query) {
    const WmiResult result = RunWmiQuery(query);
    if (platform::IsFailure(result.status)) return fmt::format("{:x}", result.status);
    std::string text;
    for (const WmiRow& row : result.rows) {
        for (const auto& [name, value] : row) {
            const std::size_t colon = value.text.find(":KV_");  // the computer's name may be any
            text += (colon == std::string::npos ? value.text : value.text.substr(colon + 1)) + "|";
        }
        text += "; ";
    }
    return text;
}

TEST_F(WmiAssociations, LeadToTheOtherEnds) {
    const std::pair<std::string, std::string> cases[] = {
        {"ASSOCIATORS OF {KV_Box.Number=1}", R"(a "b" \ c|1|; second|2|; only|7|; )"},
        {"ASSOCIATORS OF {\\\\.\\Root/cimv2:KV_Box.Number='0x1'}", R"(a "b" \ c|1|; second|2|; only|7|; )"},
        {"ASSOCIATORS OF {KV_Box=2}", "only|7|; "},
        {R"(ASSOCIATORS OF {KV_Book.Name="a \"b\" \\ C"})", "blue|1|; "},
        {"ASSOCIATORS OF {KV_Thing.Name='second'}", "blue|1|; "},
        {"ASSOCIATORS OF {KV_Shelf=7} WHERE ResultRole=Box", "blue|1|; red|2|; "},
        {"ASSOCIATORS OF {KV_Box=1} WHERE AssocClass=KV_InBox ResultClass=KV_Thing", R"(a "b" \ c|1|; second|2|; )"},
        {"ASSOCIATORS OF {KV_Box=1} WHERE ResultClass=KV_Shelf Role=box", "only|7|; "},
        {"ASSOCIATORS OF {KV_Box=1} WHERE Role=Item", ""},
        {"ASSOCIATORS OF {KV_Box=1} WHERE ClassDefsOnly", "NULL|NULL|; NULL|NULL|; "},
        {"REFERENCES OF {KV_Box=2}",
         R"(KV_Box.Number=2|KV_Thing.Name="gone"|NULL|; kv_box.number="0x2"|KV_Shelf.Number=7|; )"},
        {"REFERENCES OF {KV_Book='second'} WHERE ResultClass=KV_InBox ClassDefsOnly", "NULL|NULL|NULL|; "},
        {"REFERENCES OF {KV_Shelf=7} WHERE Role=Box", ""},
        {"ASSOCIATORS OF {KV_Box=1} WHERE AssocClass=KV_Hidden", "80041003"},
        {"ASSOCIATORS OF {KV_Box=1} WHERE AssocClass=KV_Broken", "80041001"},
        {"ASSOCIATORS OF {KV_Book=''}", "80041002"},
        {"ASSOCIATORS OF {KV_Book.Name='second',Number=1}", "8004103a"},
        {"ASSOCIATORS OF {KV_Box=@}", "8004103a"},
        {"ASSOCIATORS OF {KV_Box.Name='red'}", "8004103a"},
        {"ASSOCIATORS OF {KV_Box.Number='x'}", "8004103a"},
        {"ASSOCIATORS OF {KV_Box=4294967297}", "80041002"},
        {"ASSOCIATORS OF {KV_InBox.Box='KV_Box=2',Box='KV_Box=2'}", "8004103a"},
        {"ASSOCIATORS OF {KV_Book.Title='second'}", "8004103a"},
        {"REFERENCES OF {KV_InBox=1}", "8004103a"},
        {"SELECT * FROM KV_InBox WHERE Box > 'KV_Box=2'", "80041017"},
        {"SELECT * FROM KV_InBox WHERE Box = 2", "80041017"},
        {R"(SELECT * FROM KV_InBox WHERE Box = '\\\\other\\root\\cimv2:KV_Box=2')", ""},
        {"SELECT * FROM KV_InBox WHERE Box <> 'KV_Box=1'", R"(KV_Box.Number=2|KV_Thing.Name="gone"|NULL|; )"},
        {"SELECT * FROM KV_InBox WHERE Item = 'KV_Thing.Name=\"Second\"'",
         R"(KV_Box.Number=1|KV_Thing.Name="second"|NULL|; )"},
    };
    for (const auto& [query, objects] : cases) EXPECT_EQ(ObjectsOf(query), objects) << query;
}

}  // namespace
}  // namespace kv::test

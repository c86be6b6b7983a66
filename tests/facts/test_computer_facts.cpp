// What kind of computer it is, and what Windows computers around it know it by.
#include <gtest/gtest.h>
#include <utility>

#include "facts/hardware/computer_facts.h"
#include "facts/network/host_names.h"

namespace kv::test {
namespace {

using namespace facts;

TEST(ComputerFacts, TheChassisTellsTheKindOfSystem) {
    const std::tuple<int, int, int> rows[] = {{3, 1, 1}, {10, 2, 2}, {30, 2, 8}, {31, 2, 2}, {23, 4, 4}, {2, 0, 0}};
    for (const auto& [chassis, type, extendedType] : rows) {
        EXPECT_EQ(SystemTypeOfChassis(static_cast<unsigned>(chassis)), type) << chassis;
        EXPECT_EQ(ExtendedSystemTypeOfChassis(static_cast<unsigned>(chassis)), extendedType) << chassis;
    }
}

TEST(ComputerFacts, TheWorkgroupStandsInTheGlobalSectionOfSambasConfiguration) {
    const std::pair<const char*, const char*> rows[] = {
        {"[global]\n   workgroup = OFFICE\n", "OFFICE"},
        {"# [global]\r\n[ Global ]\r\nWork Group=Two words \r\n", "Two words"},
        {"workgroup = EARLY\n[homes]\nworkgroup = NOT\n", "EARLY"},
        {"[global]\n; workgroup = OLD\n#workgroup = OLD\nserver string = a workgroup = b\n", ""},
        {"[global]\nworkgroup = FIRST\n[print$]\n[global]\nworkgroup = LAST\n", "LAST"},
        {"[global\nworkgroup", ""},
        {"", ""},
    };
    for (const auto& [text, workgroup] : rows) EXPECT_EQ(WorkgroupInSamba(text), workgroup) << text;
    EXPECT_EQ(WorkgroupName("/nowhere/smb.conf"), "WORKGROUP");
    EXPECT_EQ(WorkgroupName("/"), std::nullopt) << "it cannot be read";
}

}  // namespace
}  // namespace kv::test

// Accounts and processes, and what a user may not see of them.
#include <gmock/gmock.h>
#include <unistd.h>

#include "tests/support/linux/gathered_texts.h"
#include "tests/support/test_folder.h"
#include "wql/classes/accounts.h"
#include "wql/classes/processes.h"

namespace kv::test {
namespace {

using namespace wql;
using testing::HasSubstr;
using testing::IsEmpty;

/// A folder that stands for /etc or /proc; a gather is a plain function, so that the path stands outside.
std::string placeOfFiles;

struct WmiAccounts : TestFolder {
    WmiAccounts() { placeOfFiles = work.string(); }

    static Gathered Users(const char* properties) {
        return GatherTexts(u"Win32_UserAccount", properties,
                           [](const Gathering& gathering) { return GatherUsers(gathering, placeOfFiles); });
    }
    static Gathered Groups() {
        return GatherTexts(u"Win32_Group", "Name",
                           [](const Gathering& gathering) { return GatherGroups(gathering, placeOfFiles); });
    }
    static Gathered Processes(const char* where) {
        return GatherTexts(
            u"Win32_Process", "ProcessId ExecutablePath",
            [](const Gathering& gathering) { return GatherProcesses(gathering, placeOfFiles); }, where);
    }
};

TEST_F(WmiAccounts, SayWhatCannotBeRead) {
    EXPECT_EQ(Users("Name").status, wmi_status::providerFailure);
    EXPECT_EQ(Groups().status, wmi_status::providerFailure);
    EXPECT_THAT(Groups().notices, testing::ElementsAre(HasSubstr("No such file")));

    Write(work / "passwd", "a:x:1:1:::/bin/sh\nb:x:2:2:::/bin/sh\nc::3:3:::/bin/sh\nd:*:4:4:::/bin/false\n");
    Write(work / "shadow", "a:$6$hash:19000:0:90:7:::\n");
    constexpr const char* facts = "Name Disabled PasswordRequired PasswordExpires";
    EXPECT_EQ(LinesOf(Users(facts)),
              "a|false|true|true|\nb|false|true|false|\nc|false|false|false|\nd|true|true|false|\n");
    std::filesystem::remove(work / "shadow");
    EXPECT_THAT(Users(facts).notices, IsEmpty()) << "a system without shadow passwords";
    std::filesystem::create_directory(work / "shadow");  // cannot be read
    EXPECT_EQ(LinesOf(Users(facts)),
              "a|NULL|NULL|NULL|\nb|NULL|NULL|NULL|\nc|false|false|false|\nd|true|true|false|\n");
    EXPECT_THAT(Users(facts).notices, testing::ElementsAre(HasSubstr("shadow")));
    EXPECT_THAT(Users("Name").notices, IsEmpty()) << "nobody asks for it";
}

TEST_F(WmiAccounts, SeeOnlySomeProcesses) {
    const std::string stat = " (x) S 1 1 1 0 -1 0 0 0 0 0 0 0 0 0 20 0 1 0 5 0 0" + [] {
        std::string rest;
        for (int field = 25; field <= 38; ++field) rest += " 0";
        return rest + "17 0\n";
    }();
    EXPECT_EQ(Processes("").status, wmi_status::providerFailure);
    Write(work / "71" / "stat", "71" + stat);
    EXPECT_EQ(LinesOf(Processes("")), "71|NULL|\n");
    EXPECT_THAT(Processes("").notices, testing::ElementsAre(HasSubstr("does not show"))) << "/proc with hidepid=2";
    EXPECT_THAT(Processes("WHERE ProcessId = 71").notices, IsEmpty()) << "it is seen";
    EXPECT_EQ(Processes("WHERE ProcessId = 72").notices.size(), 1u) << "it may be another user's";
    Write(work / "1" / "stat", "1" + stat);
    EXPECT_THAT(Processes("").notices, IsEmpty());
}

/// Acts as a user without rights.
struct Nobody {
    const uid_t before = geteuid();
    Nobody() { EXPECT_EQ(before == 0 ? seteuid(65534) : 0, 0); }
    ~Nobody() { EXPECT_EQ(before == 0 ? seteuid(before) : 0, 0); }
    Nobody(const Nobody&) = delete;
    Nobody& operator=(const Nobody&) = delete;
};

TEST_F(WmiTest, TellsAUserWithoutRightsWhatIsMissing) {
    const Nobody nobody;
    const WmiResult processes = RunWmiQuery("SELECT ExecutablePath FROM Win32_Process WHERE ProcessId = 1");
    ASSERT_EQ(processes.rows.size(), 1u);
    EXPECT_EQ(PropertyText(processes.rows[0], "ExecutablePath"), "NULL");
    EXPECT_THAT(processes.notices, testing::ElementsAre(HasSubstr("may not read")));
    EXPECT_THAT(RunWmiQuery("SELECT Disabled FROM Win32_UserAccount WHERE Name = 'root'").notices,
                testing::ElementsAre(HasSubstr("/etc/shadow")));
}

}  // namespace
}  // namespace kv::test

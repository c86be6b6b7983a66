// Accounts and groups in their files, and names and command lines of processes.
#include <fmt/format.h>
#include <gtest/gtest.h>
#include <tuple>
#include <utility>

#include "facts/accounts/account_files.h"
#include "facts/processes/process_files.h"

namespace kv::test {
namespace {

using namespace facts;
using namespace std::string_literals;

TEST(AccountFiles, ThePasswordTellsTheStateOfAnAccount) {
    const std::pair<const char*, const char*> rows[] = {
        {"u:$6$hash:19000:0:99999:7:::", "true false false true -1; false false"},
        {"u:!$6$hash:19000:0:90:7::20001:", "true true true true 20001; false true"},
        {"u:!!:19000::::::", "true false false true -1; false true"},
        {"u:*:19000:10:5:7:::", "true false true false -1; false true"},
        {"u::19000:0:99999:7::20000:", "false false false true 20000; true true"},
        {"u:$6$hash:19900:0:90:7:9::", "true false true true -1; true true"},  // too old since today
        {"u:$6$hash:19901:0:90:7:9::", "true false true true -1; false false"},
        {"u:short", "no entry"},
        {"+\n-u::::::::\nu:*:1:0:90:7::x:\nu:*:::::::", "true false false true -1; false true"},
    };
    // isRequired, isLocked, expires, mayBeChanged, accountExpiry or -1; disabled with a shell, and without one
    for (const auto& [line, wanted] : rows) {
        std::string text = "no entry";
        for (const auto& [name, entry] : ParseShadow(line)) {
            text = fmt::format("{} {} {} {} {}; {} {}", entry.isRequired, entry.isLocked, entry.expires,
                               entry.mayBeChanged, entry.accountExpiry.value_or(-1),
                               IsDisabled({"u", 1, "", "/bin/sh"}, entry, 20000),
                               IsDisabled({"u", 1, "", "/sbin/nologin"}, entry, 20000));
        }
        EXPECT_EQ(text, wanted) << line;
    }
}

TEST(AccountFiles, SkipsLinesThatAreNotAccounts) {
    const std::string members = std::string(9000, 'm') + ",n,,o";
    std::string users;
    for (const UserEntry& user : ParsePasswd("#c:x:1:1:::\n+\n-@y\n:x:3:3:::\nbad\nb:x:z:1:::\nc:x:4294967296:1:::\n"
                                             "a:x:1:1:A B,room:/:/bin/sh\na:x:7:7\nl:x:2:2:" +
                                             members + ":/:\nd:x:4:5\ne:x:5:5:::/bin/sh:more"))
        users += fmt::format("{} {} {} {};", user.name, user.id, user.fullName.size(), user.shell);
    EXPECT_EQ(users, "a 1 3 /bin/sh;l 2 9000 ;d 4 0 ;e 5 0 /bin/sh:more;");
    std::string groups;
    for (const GroupEntry& group : ParseGroups("+:::\nw:x:z:\nwheel:x:10:" + members + "\nwheel:x:11\nq:x:12"))
        groups += fmt::format("{} {};", group.name, group.id);
    EXPECT_EQ(groups, "wheel 10;q 12;");
    EXPECT_TRUE(ParsePasswd("").empty());
}

TEST(ProcessFiles, GiveWholeNamesAndCommandLines) {
    EXPECT_EQ(CommandLineOf("a\0b c\0\0\xff\0\0"s), "a b c  \xff");
    EXPECT_EQ(CommandLineOf(std::string(99999, 'x')).size(), 32767u);
    const std::tuple<const char*, const char*, std::string, const char*> rows[] = {
        {"the kernel cut the name", "systemd-journal", "/lib/systemd/systemd-journald\0-x"s, "systemd-journald"},
        {"a short name is whole", "systemd", "/lib/systemd/systemd-journald"s, "systemd"},
        {"the name of a script", "fifteen-letters", "/bin/sh\0-e\0/bin/fifteen-letters-more"s, "fifteen-letters-more"},
        {"an argument further on", "fifteen-letters", "x\0y\0z\0fifteen-letters-more"s, "fifteen-letters"},
        {"a title instead of arguments", "systemd-userwor", "systemd-userwork: waiting..."s, "systemd-userwork"},
    };
    for (const auto& [title, kernelName, arguments, name] : rows) {
        ProcessStat stat;
        stat.name = kernelName;
        EXPECT_EQ(ExecutableNameOf(stat, arguments), name) << title;
    }
}

}  // namespace
}  // namespace kv::test

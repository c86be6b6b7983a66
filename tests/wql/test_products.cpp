// Packages and their updates: this machine's as dpkg-query lists them, a database of rpm that the test makes, and what
// this machine does not show.
#include <fmt/format.h>
#include <gmock/gmock.h>
#include <unistd.h>

#include "tests/support/linux/gathered_texts.h"
#include "tests/support/linux/nobody.h"
#include "tests/support/linux/shell.h"
#include "tests/support/linux/zone_setting.h"
#include "wql/classes/software/products.h"

namespace kv::test {
namespace {

using namespace wql;
using testing::HasSubstr;
using testing::MatchesRegex;

struct WmiProducts : FrozenFiles {
    static Gathered Products(const char* properties, const char* where = "") {
        return Over<GatherProducts>(u"Win32_Product", properties, where);
    }
    static Gathered Updates() {
        return Over<GatherUpdates>(u"Win32_QuickFixEngineering", "HotFixID Description FixComments InstalledOn");
    }

    const std::filesystem::path dpkg = work / "var/lib/dpkg";
    const std::filesystem::path logs = work / "var/log";
    const std::filesystem::path rpm = work / "var/lib/rpm";
};

TEST_F(WmiProducts, AreThePackagesOfDpkg) {
    if (access("/usr/bin/dpkg-query", X_OK) != 0) GTEST_SKIP() << "not a system of dpkg";
    const std::string installed =
        " | awk '$1 != \"config-files\" && $1 != \"not-installed\" {$1 = \"\"; print}' | sort";
    std::string shown;
    for (const std::string& row : RowTexts("IdentifyingNumber,Version,Name FROM Win32_Product"))
        shown += "x " + row + "\n";
    Write(work / "shown", shown);
    EXPECT_EQ(RunShell("cat shown" + installed).output,
              RunShell("dpkg-query -W -f '${db:Status-Status} ${Package}:${Architecture} ${Version} ${Package}\n'" +
                       installed)
                  .output);
    EXPECT_EQ(TextsOf("InstallDate,Description,URLInfoAbout FROM Win32_Product WHERE Name = 'BASH'"),
              RunShell("echo $(date -r $(ls /var/lib/dpkg/info/bash*.list) +%Y%m%d) "
                       "$(dpkg-query -W -f '${binary:Summary} ${Homepage}' bash)")
                  .output);
    EXPECT_THAT(TextsOf("InstallDate2 FROM Win32_Product WHERE Name = 'bash'"),
                testing::StartsWith(TextsOf("InstallDate FROM Win32_Product WHERE Name = 'bash'")));
}

TEST_F(WmiProducts, AreThoseWhoseFilesAreThere) {
    EXPECT_EQ(Products("Name").status, wmi_status::ok) << "neither database";
    Write(dpkg / "status",
          "Package: a\nStatus: install ok installed\nVersion: 1:2\nArchitecture: all\nOrigin: Some Origin\n"
          "Maintainer: B <b@example.org>\nBugs: https://example.org\nDescription: in short\n at length\n Package: x\n\n"
          "package: b\nStatus: deinstall ok config-files\nVersion: 1\n\n"
          "Package: c\nStatus: hold ok triggers-pending\nVersion: 3\nMaintainer: C Team <c@example.org>\n\n"
          "Package: d\nStatus: install reinstreq half-configured\nMaintainer: <d@example.org>\n\n\n"
          "Status: install ok installed\n\nno colon\n\nPackage: cut");
    constexpr const char* facts = "Name IdentifyingNumber Version Vendor Description InstallState InstallDate HelpLink";
    EXPECT_EQ(LinesOf(Products(facts)),
              "a|a:all|1:2|Some Origin|in short|5|NULL|https://example.org|\nc|c:|3|C Team|NULL|5|NULL|NULL|\n"
              "d|d:||<d@example.org>|NULL|-6|NULL|NULL|\n");
    EXPECT_EQ(LinesOf(Products("Name", "WHERE Name = 'C' OR Name = 'b'")), "c|\n");
    for (const char* make : {"mkdir ", "mkfifo "}) {
        RunShell("cd var/lib/dpkg && rm -r status && " + (make + std::string("status")));
        EXPECT_THAT(Outcome(Products("Name")), MatchesRegex("80041004 0 .*cannot be read.*")) << make;
    }
}

TEST_F(WmiProducts, InFoldersOfTheSuperuserAreNotAbsent) {
    if (getuid() != 0) GTEST_SKIP() << "its owner may look into every folder";
    Write(dpkg / "status", "");
    Write(rpm / "rpmdb.sqlite", "");
    Write(logs / "dpkg.log", "");
    ASSERT_EQ(RunShell("chmod 755 .. . && chmod 700 var/lib/dpkg var/lib/rpm var/log").exitCode, 0);
    const Nobody nobody;
    EXPECT_THAT(Outcome(Products("Name")), MatchesRegex("80041003 0 .*/var/lib/dpkg/status.*rpm.*"));
    EXPECT_THAT(Outcome(Updates()), MatchesRegex("80041003 0 .*/var/log cannot be read: Perm.*rpm.*"));
}

TEST_F(WmiProducts, AreThePackagesOfRpm) {
    if (access("/usr/bin/rpmbuild", X_OK) != 0) GTEST_SKIP() << "rpm is not installed";
    constexpr const char* spec =
        "Name: {}\n{}Version: 1.5\nRelease: 3\nSummary: Of the test, \"a\"\nLicense: none\nBuildArch: noarch\n"
        "%description\n%files\n";
    Write(work / "a.spec",
          fmt::format(fmt::runtime(spec), "kv-Some.lib+x", "Epoch: 2\nVendor: V, Inc.\nURL: http://u\n"));
    Write(work / "b.spec", fmt::format(fmt::runtime(spec), "kv-Some", ""));
    const std::string build = "rpmbuild -bb --quiet --define '_topdir " + work.string() + "/build' ";
    const std::string install = "rpm --dbpath " + rpm.string() + " -i --justdb --nodeps --ignorearch ";
    ASSERT_EQ(RunShell(build + "a.spec && " + build + "b.spec && " + install + "build/RPMS/noarch/*.rpm 2>&1").exitCode,
              0);
    constexpr const char* facts = "Name IdentifyingNumber Version Vendor Description URLInfoAbout InstallState";
    const std::string some = "kv-Some|kv-Some.noarch|1.5-3|NULL|Of the test, \"a\"|NULL|5|\n";
    const std::string library = "kv-Some.lib+x|kv-Some.lib+x.noarch|2:1.5-3|V, Inc.|Of the test, \"a\"|http://u|5|\n";
    EXPECT_THAT(LinesOf(Products(facts)), testing::AnyOf(some + library, library + some));
    const std::pair<const char*, std::string> rows[] = {
        {"WHERE Name = 'KV-some'", some},
        {"WHERE Name = 'kv-some.LIB+x'", library},
        {"WHERE Name = 'kv*'", ""},
        {"WHERE Name = '-v'", ""},
    };
    for (const auto& [where, expected] : rows) EXPECT_EQ(LinesOf(Products(facts, where)), expected) << where;
    const std::string today = RunShell("date +%Y%m%d").output;
    EXPECT_THAT(LinesOf(Products("InstallDate", "WHERE Name = 'kv-some'")),
                testing::AnyOf(today + "|\n", std::to_string(std::stoi(today) - 1) + "|\n"));
    EXPECT_THAT(LinesOf(Updates()), HasSubstr("kv-Some 1.5-3|Installed or updated||"));

    ASSERT_EQ(
        RunShell("sed '/BuildArch/d; s/kv-Some/kv-Two/' b.spec > c.spec && " + build + "--target i686 c.spec && " +
                 build + "--target x86_64 c.spec && " + install + "build/RPMS/[ix]*/kv-Two*.rpm 2>&1")
            .exitCode,
        0);
    EXPECT_EQ(Products("Name", "WHERE Name = 'kv-Two'").objects.size(), 2u);
    EXPECT_EQ(Updates().objects.size(), 3u) << "each name and version once";

    Write(rpm / "rpmdb.sqlite", "not a database");
    EXPECT_THAT(Outcome(Products(facts)), MatchesRegex("80041004 0 .*rpm -qa failed: exit code 1: .*"));
    Write(dpkg / "status", "Package: a\nStatus: install ok installed\n");
    EXPECT_THAT(Outcome(Products("Name")), MatchesRegex("00000000 1 .*rpm -qa failed.*")) << "what dpkg tells";
}

TEST_F(WmiProducts, HaveTheUpdatesOfTheLogs) {
    const ZoneSetting zone("<+0545>-5:45");
    EXPECT_EQ(Updates().status, wmi_status::ok);
    const auto log = [](const char* day, const char* package, const char* former, const char* version) {
        return fmt::format(
            "{0} 23:59:58 upgrade {1} {2} {3}\n{0} 23:59:59 status half-installed {1} {2}\n"
            "{0} 23:59:59 status installed {1} {3}\n",
            day, package, former, version);
    };
    Write(logs / "dpkg.log.2", log("2025-12-31", "a:amd64", "1", "2") + "2025-12-31 10:00:00 upgrade z:all 1 2\n");
    Write(logs / "dpkg.log.1", log("2026-01-02", "b:all", "1:1", "1:2") + log("2026-01-02", "a:amd64", "2", "2"));
    Write(logs / "dpkg.log",
          log("2026-02-03", "a:i386", "1", "2") +
              "2026-02-03 10:00:00 install c:all <none> 1\n"
              "2026-02-03 10:00:00 upgrade d:all 1 2\n2026-02-03 10:00:00 status half-configured d:all 2\nupgrade\n\n" +
              log("2026-02-30x", "e:all", "1", "2") + "2026-02-03 10:01:00 status installed z:all 2\n");
    ASSERT_EQ(RunShell("cd var/log && gzip dpkg.log.2 && touch -d 2026-01-01 dpkg.log.2.gz && "
                       "touch -d 2026-01-31 dpkg.log.1")
                  .exitCode,
              0);
    EXPECT_EQ(
        LinesOf(Updates()),
        "b 1:2|Update|Replaces 1:1|1/2/2026|\na 2|Update|Replaces 1|2/3/2026|\nz 2|Update|Replaces 1|2/3/2026|\n");
    Write(logs / "dpkg.log.3.gz", "\x1f\x8b\x08 cut");
    RunShell(
        "cd var/log && mkfifo dpkg.log.4 && touch -d 2026-01-02 dpkg.log.4 && mkdir dpkg.log.5 && "
        "head -c 40000000 /dev/zero | gzip -1 > dpkg.log.6.gz && touch -d 2037-01-01 dpkg.log.6.gz");
    EXPECT_THAT(Outcome(Updates()),
                MatchesRegex("00000000 3 .*dpkg.log.3.gz.*dpkg.log.4.*dpkg.log.6.gz has more than 16 MB.*"));
    RunShell("cd var/log && rm dpkg.log.[12]* && echo > dpkg.log");
    EXPECT_EQ(Updates().status, wmi_status::ok) << "the newest log was read";
    std::filesystem::remove_all(logs);
    Write(logs, "not a folder");
    EXPECT_THAT(Outcome(Updates()), MatchesRegex("80041004 0 .*/var/log cannot be read.*"));
}

}  // namespace
}  // namespace kv::test

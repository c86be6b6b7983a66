// The provider as a whole: what it answers and refuses, and that nobody waits for it forever.
#include <algorithm>
#include <chrono>
#include <fmt/format.h>
#include <gtest/gtest.h>
#include <semaphore>
#include <stdexcept>

#include "platform/clock.h"
#include "tests/support/linux/gathered_texts.h"
#include "wql/bounded_run.h"

namespace kv::test {
namespace {

using namespace platform;
using namespace wql;

using WmiProvider = WmiTest;

TEST_F(WmiProvider, RefusesWhatItCannotAnswer) {
    const std::pair<const char16_t*, WmiStatus> nameSpaces[] = {
        {u"ROOT\\CIMV2", wmi_status::ok},
        {u"\\\\.\\root\\cimv2", wmi_status::ok},
        {u"\\\\elsewhere.example\\root\\cimv2", wmi_status::serverUnavailable},
        {u"ROOT\\WMI", wmi_status::invalidNamespace},
        {u"ROOT", wmi_status::invalidNamespace},
        {u"", wmi_status::invalidParameter},
    };
    for (const auto& [nameSpace, status] : nameSpaces)
        EXPECT_EQ(RunWmiQuery("SELECT Name FROM Win32_OperatingSystem", nameSpace).status, status)
            << Utf8FromWide(nameSpace);
    const std::pair<const char*, const char*> queries[] = {
        {"SELECT Name FROM Win32_OperatingSystem", "00000000 1"},
        {"SELECT __PATH, __GENUS, Name FROM Win32_OperatingSystem", "00000000 1"},
        {"SELECT __X FROM Win32_OperatingSystem", "80041017 0"},
        {"SELECT * FROM Win32_Nothing", "80041010 0"},
        {"SELECT Nothing FROM Win32_Process", "80041017 0"},
        {"DELETE FROM Win32_Process", "80041017 0"},
        {"SELECT * FROM Meta_Class WHERE __this ISA 'X'", "8004100c 0"},
        {"ASSOCIATORS OF {Win32_X=1}", "80041010 0"},
        {"ASSOCIATORS OF {Win32_Process=1} WHERE AssocClass=Win32_X", "80041010 0"},
        {"ASSOCIATORS OF {Win32_Process.X=1}", "8004103a 0"},
        {"ASSOCIATORS OF {Win32_Process.Handle='x'}", "80041002 0"},
    };
    for (const auto& [query, outcome] : queries) EXPECT_EQ(Outcome(RunWmiQuery(query)), outcome) << query;
    WmiHandle object = 0;
    std::uint32_t count = 1;
    EXPECT_EQ(Wmi().Next(0, object, count), wmi_status::invalidParameter);
    EXPECT_EQ(count, 0u);
}

TEST_F(WmiProvider, SaysWhyAQueryIsRefused) {
    const std::tuple<const char*, const char*> rows[] = {
        {"SELECT Name FROM Win32_OperatingSystem", ""},
        {"SELEKT Name FROM Win32_Process",
         "at character 1, \"SELEKT\": SELECT, REFERENCES or ASSOCIATORS is expected; did you mean SELECT?"},
        {"SELECT Name FORM Win32_Process", "at character 13, \"FORM\": \",\" or FROM is expected; did you mean FROM?"},
        {"SELECT Name FROM", "at the end: a name is expected"},
        {"SELECT Name FROM Win32_Process WHERE Name LIKE 5", "at character 48, \"5\": a text in quotes is expected"},
        {"SELECT Name FROM Win32_Process WHERE Name = 'x",
         "at character 45, \"'x\": a text in quotes that is not closed, or in which a backslash escapes something else "
         "than a quote or a backslash"},
        {"SELECT Name FROM Win32_Process WHERE Name = x",
         "at character 45, \"x\": a value (a number, a text in quotes, TRUE, FALSE or NULL) is expected"},
        {"SELECT Name FROM Win32_Process WHERE Name < NULL",
         "at the end: NULL can only be compared by =, <>, != and IS"},
        {"SELECT Nmae FROM Win32_Process", "Win32_Process lacks the property Nmae; did you mean Name?"},
        {"SELECT Unlike FROM Win32_Process", "Win32_Process lacks the property Unlike"},
        {"SELECT Name FROM Win32_Proces", "the class Win32_Proces does not exist; did you mean Win32_Process?"},
        {"SELECT Name FROM Process", "the class Process does not exist; did you mean Win32_Process?"},
        {"SELECT Name FROM Win32_Process WHERE Name = 'x' AND (NOT Procesid = 1)",
         "Win32_Process lacks the property Procesid; did you mean ProcessId?"},
        {"SELECT Name FROM Win32_Process WHERE ProcessId = 'abc'",
         "ProcessId (uint32) is compared with a value that is not of its type"},
        {"SELECT Name FROM Win32_Process WHERE ProcessId LIKE '1%'",
         "ProcessId (uint32) is not a text, which LIKE needs"},
        {"SELECT Name FROM Win32_Process WHERE CreationDate > 'noon'",
         "CreationDate (datetime) is compared with a text that is not a time such as 20260131120000.000000+000"},
        {"SELECT Name FROM Win32_Service WHERE Started > TRUE",
         "Started (boolean) can only be compared by =, <> and !="},
        {"ASSOCIATORS OF {Win32_Process.X=1}", "the path in braces does not have the keys of Win32_Process: Handle"},
        {"ASSOCIATORS OF {Win32_Process=1} WHERE Rol=x",
         "at character 40, \"Rol\": ClassDefsOnly, ResultClass, Role, AssocClass or ResultRole is expected; did you "
         "mean "
         "Role?"},
    };
    for (const auto& [query, refusal] : rows) EXPECT_EQ(RunWmiQuery(query).refusal, refusal) << query;
}

TEST_F(WmiProvider, AnAbstractClassStandsForItsSubclasses) {
    const WmiResult systems = RunWmiQuery("SELECT Name, Status FROM CIM_OperatingSystem");
    ASSERT_EQ(systems.rows.size(), 1u);
    EXPECT_EQ(systems.names, (std::vector<std::string>{"Name", "Status"}));
    const WmiResult timeOnly = RunWmiQuery("SELECT * FROM CIM_Setting WHERE __CLASS = 'Win32_TimeZone'");
    ASSERT_EQ(timeOnly.rows.size(), 1u);
    EXPECT_NE(PropertyText(timeOnly.rows[0], "Bias"), "(absent)");
    BoundQuery bound;
    WqlStatement statement;
    const char16_t* disksOnly =
        u"SELECT DeviceID FROM CIM_LogicalDevice WHERE Name <> '' AND NOT (__THIS ISA 'CIM_Chip')"
        u" AND (__THIS ISA 'CIM_LogicalDisk' OR __CLASS = 'X')";
    ASSERT_EQ(ParseWql(disksOnly, statement), wmi_status::ok);
    ASSERT_EQ(BindQuery(std::get<WqlQuery>(statement), bound), wmi_status::ok);
    EXPECT_EQ(bound.parts.size(), 2u) << "other classes are not read at all";
    const WmiResult drives = RunWmiQuery(Utf8FromWide(disksOnly));
    EXPECT_EQ(drives.rows.size(), RunWmiQuery("SELECT DeviceID FROM Win32_LogicalDisk").rows.size() +
                                      RunWmiQuery("SELECT DeviceID FROM Win32_MappedLogicalDisk").rows.size());
}

TEST_F(WmiProvider, AFailingSubclassCostsOnlyItsOwnObjects) {
    const auto fail = [](const Gathering&) { return wmi_status::accessDenied; };
    const auto succeed = [](const Gathering& gathering) {
        gathering.row(nullptr);
        return wmi_status::ok;
    };
    const ClassInfo above{u"KV_Above", u"", {}};
    const ClassInfo failing{u"KV_Failing", u"", {}, fail};
    const ClassInfo working{u"KV_Working", u"", {}, succeed};
    const std::string lost = "KV_Failing are missing: status 80041003 ";
    const std::tuple<const ClassInfo*, std::vector<const ClassInfo*>, std::string> cases[] = {
        {&failing, {&failing, &working}, "80041003 "},
        {&above, {&failing, &working}, "0 Objects of " + lost + "row "},
        {&above, {&working, &failing, &working}, "0 row Objects of " + lost + "row "},
        {&above, {&failing, &failing}, "80041003 Objects of " + lost + "Objects of " + lost},
        {&above, {&failing}, "80041003 "},
        {&above, {}, "0 "},
    };
    for (const auto& [named, classes, outcome] : cases) {
        BoundQuery query{.parts = {}, .named = named};
        for (const ClassInfo* one : classes) query.parts.push_back({one, {}, {}});
        std::string events;
        const ResultSink sink{[&](const ResultObject&) { events += "row "; }, [] { return true; },
                              [&](const std::string& notice) { events += notice + " "; }};
        const WmiStatus status = RunQuery(query, sink);
        EXPECT_EQ(fmt::format("{:x} {}", status, events), outcome);
    }
}

TEST_F(WmiProvider, EveryClassAnswersWithAllItsProperties) {
    for (const ClassInfo* classInfo : AllClasses()) {
        if (classInfo->gather == nullptr) continue;
        const std::string name = Utf8FromWide(classInfo->name);
        const WmiResult result = RunWmiQuery("SELECT * FROM " + name);
        EXPECT_TRUE(result.status == wmi_status::ok || !result.notices.empty()) << name << " fails without a reason";
        if (result.rows.empty()) continue;
        EXPECT_EQ(result.names.size(), classInfo->properties.size()) << name;
    }
}

/// The objects' own paths, or those of what they refer to.
std::vector<std::string> PathsOf(const ClassInfo& classInfo, const std::string& property) {
    std::vector<std::string> paths = GatherTexts(classInfo.name, property, classInfo.gather).objects;
    for (std::string& path : paths) path.pop_back();  // the bar
    // A session may be that of a directory service's user, whose account is not listed.
    std::erase_if(paths,
                  [](const auto& path) { return path == "NULL" || path.find(":Win32_UserAccount.") != path.npos; });
    std::ranges::sort(paths);
    return paths;
}

TEST_F(WmiProvider, EveryObjectIsFoundByItsName) {
    constexpr std::size_t most = 5;  // of a class's own paths, and of each kind of reference
    std::size_t count = 0;
    // Whether a path finds an object, or has gone from its class. What it names may go, and come again, meanwhile.
    const auto isTrueOrGone = [](const std::string& path, const ClassInfo& classInfo, const std::string& property) {
        for (int attempt = 0; attempt < 5; ++attempt) {
            const WmiResult found = RunWmiQuery("REFERENCES OF {" + path + "} WHERE ResultClass = CIM_Chip");
            if (found.status == wmi_status::ok) return true;
            if (!std::ranges::binary_search(PathsOf(classInfo, property), path)) return true;
        }
        return false;
    };
    for (const ClassInfo* classInfo : AllClasses()) {
        if (classInfo->gather == nullptr || classInfo->keys.empty()) continue;
        std::vector<std::string> kinds{"__RELPATH"};
        for (const PropertyInfo& property : classInfo->properties) {
            if (property.type == CimType::reference) kinds.push_back(Utf8FromWide(property.name));
        }
        for (const std::string& kind : kinds) {
            const std::vector<std::string> paths = PathsOf(*classInfo, kind);
            const auto twice = std::ranges::adjacent_find(paths);
            EXPECT_TRUE(kind != "__RELPATH" || twice == paths.end()) << *twice << " comes twice";
            const std::size_t tried = std::min(paths.size(), most);
            for (std::size_t at = 0; at < tried; ++at, ++count) {
                const std::string& path = paths[at * paths.size() / tried];
                EXPECT_TRUE(isTrueOrGone(path, *classInfo, kind)) << path;
            }
        }
    }
    EXPECT_GT(count, 30U);
}

TEST_F(WmiProvider, GivesUpWorkThatDoesNotEnd) {
    using namespace std::chrono_literals;
    std::binary_semaphore release(0);
    std::binary_semaphore ended(0);
    const auto work = [&](const ResultSink& sink) {
        sink.object({{u"Name", Variant{}}});
        release.acquire();
        const bool wanted = sink.wantsMore();
        ended.release();
        return wanted ? wmi_status::failed : wmi_status::ok;
    };
    BoundedRunPtr run;
    BoundedRunPtr second;
    ResultObject object;
    ASSERT_EQ(StartBoundedRun(u"Stuck", 100ms, work, run), wmi_status::ok);
    EXPECT_EQ(NextObject(*run, object), wmi_status::ok) << "it came in time";
    EXPECT_EQ(object.size(), 1u);
    EXPECT_EQ(NextObject(*run, object), wmi_status::timedOut);
    EXPECT_EQ(NextObject(*run, object), wmi_status::timedOut);
    EXPECT_EQ(TakeNotices(*run).size(), 1u);
    EXPECT_EQ(StartBoundedRun(u"Stuck", 100ms, work, second), wmi_status::serverTooBusy);
    AbandonRun(*run);
    release.release();
    ended.acquire();
    while (StartBoundedRun(
               u"Stuck", 10s, [](const ResultSink&) { return wmi_status::failed; }, second) != wmi_status::ok) {
        platform::Clock().Sleep(1);
    }
    EXPECT_EQ(NextObject(*second, object), wmi_status::failed) << "the name is free once the first run has ended";
}

TEST_F(WmiProvider, ReportsAnExceptionAsAFailure) {
    BoundedRunPtr run;
    ResultObject object;
    const auto work = [](const ResultSink&) -> WmiStatus { throw std::runtime_error("broken file"); };
    ASSERT_EQ(StartBoundedRun(u"Throws", std::chrono::seconds(10), work, run), wmi_status::ok);
    EXPECT_EQ(NextObject(*run, object), wmi_status::failed);
    EXPECT_EQ(TakeNotices(*run), std::vector<std::u16string>{u"broken file"});
}

}  // namespace
}  // namespace kv::test

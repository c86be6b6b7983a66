// What the views are made of, apart from a database: tables in their forms, the scope of a query, plans.
#include <cmath>
#include <fmt/format.h>
#include <gmock/gmock.h>

#include "lab/page/scope.h"
#include "lab/page/table.h"
#include "lab/page/tiles.h"
#include "lab/store/plans.h"
#include "lab/store/requests.h"
#include "tests/lab/lab_helpers.h"

namespace kv::lab::test {

namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;

TEST(Tables, WriteEachCellInEachForm) {
    const std::tuple<const char*, Cell, const char*, const char*, const char*> rows[] = {
        {"absent", {}, "", "null", "></td>"},
        {"a text", "two words", "two words", "\"two words\"", ">two words</td>"},
        {"what CSV quotes", "a,\"b\"\r\nc", "\"a,\"\"b\"\"\r\nc\"", R"("a,\"b\"\r\nc")", "a,&quot;b&quot;\r\nc"},
        {"what HTML escapes", "<b onclick='x'>&", "<b onclick='x'>&", "\"<b onclick='x'>&\"",
         "&lt;b onclick=&#39;x&#39;&gt;&amp;"},
        {"a large number", std::int64_t{9007199254740993}, "9007199254740993", "9007199254740993",
         "num'>9007199254740993<"},
        {"a number", 0.1, "0.1", "0.1", "num'>0.1<"},
        {"not a number", std::nan(""), "", "null", "num'></td>"},
        {"a truth value", true, "yes", "true", ">yes<"},
        {"a moment", Moment{1772701507123}, "2026-03-05 09:05:07Z", "\"2026-03-05 09:05:07Z\"",
         ">2026-03-05 09:05:07Z<"},
        {"a link", Link{"a\"b", "/record/1?x=\"&y"}, "\"a\"\"b\"", R"("a\"b")",
         "<a href=\"/record/1?x=&quot;&amp;y\">a&quot;b</a>"},
        {"a mark", Marked{"failed", Mark::bad}, "failed", "\"failed\"", " bad'>failed<"},
    };
    for (const auto& [title, cell, csv, json, html] : rows) {
        const Table table{"rows", {{"first", "First"}, {"value", "Its value"}}, {{"x", cell}}};
        EXPECT_EQ(TableAnswer(table, TableFormat::csv).body, fmt::format("first,value\r\nx,{}\r\n", csv)) << title;
        EXPECT_EQ(TableJson(table), fmt::format(R"({{"rows":[{{"first":"x","value":{}}}]}})", json)) << title;
        std::string page;
        AddHtmlTable(page, table);
        EXPECT_THAT(page, HasSubstr(html)) << title;
    }
}

TEST(Scopes, SayThemselvesInAQuery) {
    using Parameters = std::multimap<std::string, std::string>;
    const std::tuple<const char*, Parameters, const char*> rows[] = {
        {"nothing", {}, ""},
        {"all",
         {{"range", "1w"}, {"agent", "LAB1"}, {"device", "S 1"}, {"name", "a&b=c"}, {"failed", "1"}},
         "?range=1w&agent=LAB1&device=S%201&name=a%26b%3Dc&failed=1"},
        {"empty fields of a form", {{"range", "15m"}, {"agent", ""}, {"device", ""}, {"name", ""}}, ""},
        {"unnamed",
         {{"device", "(the agent itself)"}, {"name", "(unnamed record)"}},
         "?device=%28the%20agent%20itself%29&name=%28unnamed%20record%29"},
    };
    for (const auto& [title, parameters, query] : rows) {
        ServletRequest request;
        request.query = parameters;
        EXPECT_EQ(ScopeQuery(ScopeOf(request, 1000)), query) << title;
    }
}

TEST(Shares, AreRoundedButNotToNoneOrAll) {
    const std::tuple<int, int, const char*> rows[] = {{0, 0, "–"},    {0, 7, "0 %"},    {7, 7, "100 %"},
                                                      {1, 3, "33 %"}, {1, 900, "<1 %"}, {899, 900, ">99 %"}};
    for (const auto& [part, whole, text] : rows) EXPECT_EQ(ShareText(part, whole), text);
}

class Plans : public LabOnEach {};

constexpr const char* planText = R"({ "WorkFlows": [ /* by hand */
    { "wfname": "Disks", "interval": 5, "recordSetName": [
      { "script": "disks.sh", "Name": "Disks", "response_needed": "true" },
      { "wmiQuery": "SELECT * FROM Win32_LogicalDisk", "Name": "Local" } ] } ],
  "WorkFlows_S1": [ { "wfname": "Ports", "interval": "1", "recordSetName": [
      { "OID": ".1.3", "DEVICE_NAME": "192.0.2.7", "POLICY_NAME": "Interfaces" } ] }, 7 ] })";

std::string Line(const PlannedRecord& record) {
    return record.workflow + "|" + record.interval + "|" + record.name + "|" + record.device + "|" + record.source;
}

TEST(Plan, TellWhatIsCollected) {
    std::vector<std::string> lines;
    for (const PlannedRecord& record : RecordsOfPlan(planText)) lines.push_back(Line(record));
    EXPECT_THAT(lines, ElementsAre("Disks|5|Disks||disks.sh", "Disks|5|Local||SELECT * FROM Win32_LogicalDisk",
                                   "Ports|1|Interfaces|192.0.2.7|SNMP .1.3"));
    for (const char* text : {"", "[]", "{", "7", R"({ "WorkFlows": [ { "recordSetName": 7 } ] })",
                             R"({ "WorkFlows": [ { "recordSetName": [ 7, null ] } ] })"})
        for (const PlannedRecord& record : RecordsOfPlan(text)) EXPECT_EQ(Line(record), "||||") << text;
}

TEST_P(Plans, AreKnownFromTheStartAndAsPushed) {
    EXPECT_EQ(KnownPlan(store, "LAB1"), std::nullopt);
    const auto plan = [](const char* name) {
        return fmt::format(R"({{ "W": [ {{ "recordSetName": [ {{ "Name": "{}" }} ] }} ] }})", name);
    };
    EXPECT_TRUE(KeepStartPlan(store, "\xEF\xBB\xBF" + plan("old")));
    EXPECT_TRUE(KeepStartPlan(store, "\xFF\xFE" + WideBytes(plan("ü"))));
    EXPECT_FALSE(KeepStartPlan(store, "{ \"W\": [] }")) << "lists nothing";
    EXPECT_EQ(KnownPlan(store, "LAB1"), plan("ü")) << "in place of the former one";
    AddConfiguration(store, "LAB1", "LAB1", MakeArchive({{"queryconf.txt", "{ \"pushed\": 1 }"}}));
    AddConfiguration(store, "LAB3", "LAB3", "not a zip");
    EXPECT_EQ(KnownPlan(store, "LAB1"), "{ \"pushed\": 1 }");
    EXPECT_EQ(KnownPlan(store, "LAB2"), plan("ü"));
    EXPECT_EQ(KnownPlan(store, "LAB3"), std::nullopt);
}

INSTANTIATE_TEST_SUITE_P(Database, Plans, eachKind, KindName);

}  // namespace

}  // namespace kv::lab::test

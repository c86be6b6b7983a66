// The lab's server over real HTTP: what it accepts, refuses, keeps and shows.
#include <fmt/format.h>
#include <future>
#include <gmock/gmock.h>
#include <iterator>
#include <thread>

#include "lab/record_html.h"
#include "lab/record_text.h"
#include "tests/lab/lab_helpers.h"

namespace kv::lab::test {

namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;
using namespace std::string_literals;

constexpr const char* goodQuery = "AGENTKEY=LAB1&FILENAME=Agent_LAB1_1.zip";

class LabServing : public Lab {
  protected:
    httplib::Result Get(const std::string& path) { return client.Get(path); }
    std::string Page() { return Get("/")->body; }
    std::string Enrol(const std::string& query) {
        return Get("/servlets/RegisterAgent?" + query)->get_header_value("AgentKey");
    }

    std::string goodZip = MakeArchive({{"data/Agent_LAB1_2.txt", WideBytes(R"({ "a": "1" })")},
                                       {"data/Agent_LAB1_3.txt", WideBytes(R"({ "b": [ { "c": "ü" } ] })")}});
};

TEST_F(LabServing, EnrolmentGivesConfirmsAndRemembersKeys) {
    const std::tuple<const char*, const char*, const char*> rows[] = {
        {"first agent", "agentKey=HUBCENTER&agentID=one&agentDNS=one.example", "LAB1"},
        {"the same name in another domain", "agentKey=hubcenter&agentID=one&agentDNS=one.elsewhere", "LAB2"},
        {"the first again, its key lost", "agentKey=HUBCENTER&agentID=one&agentDNS=one.example", "LAB1"},
        {"a key that is next in line", "agentKey=LAB3&agentID=four&agentDNS=four.example", "LAB3"},
        {"a new one steps over it", "agentKey=HUBCENTER&agentID=five&agentDNS=five.example", "LAB4"},
    };
    for (const auto& [title, query, key] : rows) EXPECT_EQ(Enrol(query), key) << title;
    EXPECT_EQ(Get("/servlets/RegisterAgent?agentKey=a%0D%0AEvil:%201")->status, 400) << "no key at all";
    EXPECT_EQ(Agents(store).size(), 4U);
}

TEST_F(LabServing, AnUploadIsKeptOnceHoweverOftenItComes) {
    EXPECT_EQ(Upload(client, goodQuery, goodZip)->status, 200);
    EXPECT_EQ(Upload(client, goodQuery, goodZip)->status, 200);
    const auto kept =
        ElementsAre(R"(data/Agent_LAB1_2.txt { "a": "1" })", R"(data/Agent_LAB1_3.txt { "b": [ { "c": "ü" } ] })");
    EXPECT_THAT(StoredRecords(store), kept) << "the repeat is accepted and not stored";
    const ArchiveFiles longer{{"data/Agent_LAB1_2.txt", WideBytes(R"({ "a": "1" })")},
                              {"data/more.txt", WideBytes("2")}};
    EXPECT_EQ(Upload(client, goodQuery, MakeArchive(longer))->status, 200);
    EXPECT_EQ(Upload(client, goodQuery, MakeArchive({longer[0]}))->status, 200);
    EXPECT_EQ(Upload(client, "AGENTKEY=LAB2&FILENAME=Agent_LAB1_1.zip", MakeArchive({longer[0]}))->status, 200);
    EXPECT_EQ(StoredRecords(store).size(), 6U) << "other content or another agent is another delivery";
    EXPECT_EQ(CountAll(store).zips, 4);
    EXPECT_EQ(Agents(store).size(), 2U) << "agents that never enrolled are known by their uploads";
}

TEST_F(LabServing, TextsThatAreNoJsonAreKeptAndMarked) {
    const std::tuple<const char*, std::string, std::string, bool> rows[] = {
        {"object", WideBytes("{ \"a\": \"\\/\" }\n"), "{ \"a\": \"\\/\" }\n", true},
        {"text of a script", WideBytes("out of paper"), "out of paper", false},
        {"two documents", WideBytes("{ } { }"), "{ } { }", false},
        {"a NUL behind the document", WideBytes("{ }") + std::string(2, '\0'), std::string("{ }\0", 4), false},
        {"too deep", WideBytes(std::string(maxJsonDepth + 1, '[')), std::string(maxJsonDepth + 1, '['), false},
    };
    ArchiveFiles entries;
    for (const auto& [title, bytes, text, isJson] : rows) entries.emplace_back(title, bytes);
    EXPECT_EQ(Upload(client, goodQuery, MakeArchive(entries))->status, 200);
    const std::vector<Record> records = RecordsAfter(store, {});
    ASSERT_EQ(records.size(), std::size(rows));
    for (auto at = records.begin(); const auto& [title, bytes, text, isJson] : rows) {
        EXPECT_EQ(at->content.file, title);
        EXPECT_EQ(at->content.text, text) << title;
        EXPECT_EQ((at++)->content.isJson, isJson) << title;
    }
    const std::string answer = Get("/api/records?after=1&limit=1")->body;
    EXPECT_TRUE(ParseJson(answer).valid);
    EXPECT_THAT(answer, HasSubstr(R"("number":2,"agent":"LAB1","zip":"Agent_LAB1_1.zip","file":"text of a script")"));
    EXPECT_THAT(answer, HasSubstr(R"("json":false,"values":"out of paper"})"));
    EXPECT_THAT(answer, Not(HasSubstr(R"("number":3)")));
}

TEST_F(LabServing, WhatIsMalformedIsRefusedAndShown) {
    std::string badCrc = goodZip;
    badCrc[badCrc.find("Agent_LAB1_2.txt") + 20] ^= 1;
    std::string otherLocalName = goodZip;
    otherLocalName[otherLocalName.find("Agent_LAB1_3.txt")] = 'X';
    const std::tuple<const char*, const char*, std::string, const char*> rows[] = {
        {"a key with a blank", "AGENTKEY=a%20b&FILENAME=a.zip", goodZip, "the parameter AGENTKEY is no agent key\n"},
        {"directory and entry differ", goodQuery, otherLocalName, "the body is not a good zip: "},
        {"a bit flipped in the data", goodQuery, badCrc, "the entry data/Agent_LAB1_2.txt cannot be read: "},
        {"a bomb", goodQuery, MakeArchive({{"ok.txt", WideBytes("1")}, {"bomb.txt", std::string(65 << 20, 'x')}}),
         "the entry bomb.txt unpacks to too much\n"},
    };
    for (const auto& [title, query, body, reason] : rows) {
        SCOPED_TRACE(title);
        const httplib::Result answer = Upload(client, query, body);
        ASSERT_TRUE(answer);
        EXPECT_EQ(answer->status, 400);
        EXPECT_THAT(answer->body, ::testing::StartsWith(reason));
        EXPECT_EQ(std::count(answer->body.begin(), answer->body.end(), '\n'), 1);
        EXPECT_THAT(Page(), HasSubstr(Escape(answer->body.substr(0, answer->body.size() - 1))));
    }
    EXPECT_THAT(StoredRecords(store), IsEmpty()) << "nothing of a refused zip is kept, good entries neither";
    EXPECT_EQ(Upload(client, goodQuery, badCrc)->status, 400);
    EXPECT_EQ(LatestRefusals(store, 1)[0].times, 2) << "the same refusal counts up";
}

TEST_F(LabServing, ABodyThatBreaksOffIsNotServed) {
    for (const std::string path :
         {"/servlets/DataAgentHandlerServlet?agentKey=K1", "/servlets/FileCollector?AGENTKEY=K1&FILENAME=a"}) {
        const auto half = [](std::size_t offset, std::size_t, httplib::DataSink& sink) {
            return offset == 0 && sink.write("{ }", 3);
        };
        EXPECT_FALSE(client.Post(path, 6, half, "application/octet-stream"));
    }
    while (LatestRefusals(store, 1).empty()) std::this_thread::yield();
    EXPECT_EQ(LatestRefusals(store, 1)[0].reason, "the body did not arrive whole");
    EXPECT_THAT(LatestAnswers(store, 1), IsEmpty());
}

TEST_F(LabServing, StatusNoticesAndAnswersAreKept) {
    EXPECT_EQ(Enrol("agentKey=K1&agentID=one"), "K1");
    EXPECT_EQ(Get("/servlets/StatusUpdateServlet?agentKey=K1&agentStatus=AGENT_DOWN&serviceName=A")->status, 200);
    EXPECT_THAT(Page(), HasSubstr("AGENT_DOWN"));
    EXPECT_EQ(Enrol("agentKey=K1&agentID=one"), "K1");
    EXPECT_THAT(Page(), Not(HasSubstr("AGENT_DOWN"))) << "it runs again";
    const std::string servlet = "/servlets/DataAgentHandlerServlet?agentKey=K1";
    EXPECT_EQ(Get(servlet + "&action=DELETE_REQUEST&requestId=17")->status, 200);
    EXPECT_EQ(client.Post(servlet + "&action=WMI&requestId=18", WideBytes("{ \"ä\": 1 }"), "")->status, 200);
    EXPECT_EQ(LatestActions(store, 10).at(0).requestId, "17");
    EXPECT_EQ(LatestAnswers(store, 10).at(0).text, "{ \"ä\": 1 }");
}

TEST_F(LabServing, FaultsInTheirOrder) {
    // the status -1: no answer, or not the whole of it; records stored; how often the fault is left, 0: used up
    const std::tuple<const char*, Fault, int, std::size_t, std::int64_t> rows[] = {
        {"a status", {0, "FileCollector", FaultKind::status, 503, 2}, 503, 0, 1},
        {"a dropped connection", {0, "FileCollector", FaultKind::drop, 0, 1}, -1, 0, 0},
        {"another servlet's", {0, "RegisterAgent", FaultKind::drop, 0, 5}, 200, 1, 5},
        {"a delay", {0, "FileCollector", FaultKind::delay, 60, 1}, 200, 1, 0},
        {"a body cut short", {0, "FileCollector", FaultKind::cut, 0, 1}, -1, 1, 0},
    };
    int number = 0;
    for (const auto& [title, fault, status, stored, remaining] : rows) {
        SCOPED_TRACE(title);
        const std::size_t before = StoredRecords(store).size();
        AddFault(store, fault);
        EXPECT_THAT(Page(), HasSubstr(FaultText(fault)));
        const httplib::Result answer =
            Upload(client, "AGENTKEY=LAB1&FILENAME=" + std::to_string(++number), MakeArchive({{"a", WideBytes("1")}}));
        EXPECT_EQ(answer ? answer->status : -1, status);
        EXPECT_EQ(StoredRecords(store).size() - before, stored);
        const std::vector<Fault> left = Faults(store);
        EXPECT_EQ(left.empty() ? 0 : left.front().remaining, remaining);
        ClearFaults(store, 0, "");
    }
    AddFault(store, {0, "FileCollector", FaultKind::status, 500, 1});
    AddFault(store, {0, "FileCollector", FaultKind::status, 501, 0});
    for (const int status : {500, 501, 501}) EXPECT_EQ(Upload(client, goodQuery, goodZip)->status, status);
}

TEST_F(LabServing, AStoppedServerDoesNotWaitForItsDelays) {
    AddFault(store, {0, "*", FaultKind::delay, 3600000, 1});
    auto waiting =
        std::async(std::launch::async, [this] { return static_cast<bool>(Upload(client, goodQuery, goodZip)); });
    while (!Faults(store).empty()) std::this_thread::yield();
    server.reset();
    EXPECT_FALSE(waiting.get());
    EXPECT_THAT(StoredRecords(store), IsEmpty());
}

TEST_F(LabServing, AgentsThatUploadAtOnceLoseNothing) {
    const auto uploadFive = [this](const std::string& agent) {
        httplib::Client own("127.0.0.1", server->port());
        for (const std::string name : {"a", "b", "c", "d", "e"})
            EXPECT_EQ(Upload(own, "AGENTKEY=" + agent + "&FILENAME=" + name, MakeArchive({{name, agent}}))->status,
                      200);
    };
    std::vector<std::thread> threads;
    for (const char* agent : {"K1", "K2", "K3", "K4", "K5", "K6"}) threads.emplace_back(uploadFive, agent);
    for (std::thread& thread : threads) thread.join();
    const std::vector<std::string> records = StoredRecords(store);
    EXPECT_EQ(records.size(), 30U);
    EXPECT_EQ(std::set<std::string>(records.begin(), records.end()).size(), 30U);
}

TEST_F(LabServing, ThePageShowsValuesAndLetsNoMarkupThrough) {
    const std::string evil = "<i title=\"evil\">&'";
    const std::string encoded = "%3Ci%20title=%22evil%22%3E%26'";
    Enrol("agentKey=K1&agentDNS=" + encoded + "&osName=" + encoded + "&customerName=" + encoded);
    Get("/servlets/DataAgentHandlerServlet?agentKey=K1&action=" + encoded + "&requestId=" + encoded);
    Upload(client, "AGENTKEY=" + encoded + "&FILENAME=" + encoded, "no zip");
    const std::string json =
        R"({ "DATACOLLECTTIME": "1772701507", "ERRORMSG": "<i>", "<i>": [ { "<i>": "<i>", "n": 4711 },)"
        R"( { "other": null } ], "list": [ "<i>", [ [ [ [ [ [ "<i>" ] ] ] ] ] ] ], "o": { "<i>": 1.5 } })";
    std::string rows = R"([ { "r": "cell0" })";
    for (int i = 1; i < 200; ++i) rows += fmt::format(R"(, {{ "r": "cell{}" }})", i);
    const ArchiveFiles entries{{evil, WideBytes(json)},
                               {"script", WideBytes("<i>plain</i>")},
                               {"rows", WideBytes(rows + "]")},
                               {"large", WideBytes(std::string(100000, '<'))}};
    EXPECT_EQ(Upload(client, "AGENTKEY=K1&FILENAME=" + encoded, MakeArchive(entries))->status, 200);
    const std::string page = Page();
    EXPECT_THAT(page, Not(HasSubstr("<i")));
    for (const char* text : {"&lt;i title=&quot;evil&quot;&gt;&amp;&#39;", "2026-03-05 09:05:07Z",
                             "<tr><td></td><td>4711</td><td>&lt;i&gt;</td></tr>", "<pre>&lt;i&gt;plain&lt;/i&gt;</pre>",
                             "all 100000 bytes", "cell24<", "175 more"})
        EXPECT_THAT(page, HasSubstr(text));
    EXPECT_THAT(page, Not(HasSubstr("cell25<")));
    EXPECT_THAT(page, HasSubstr(Get("/fragment")->body));
}

TEST_F(LabServing, ThePageShowsEachKindOfRecordInItsOwnTable) {
    const std::string snmp =
        R"({ "POLICY_NAME": "Net", "STATUS": "FAILURE", ".1.2": {}, ".1.1": { ".1.1.2": "<b>", ".1.1.1": "lo" },)"
        R"( "TYPE": "4", "OID": ".1.1,.1.2,.1.3" })";
    const std::string oneObject =
        R"({ "ERRORMSG": "NO ERROR", "System": [ { "Version": "<6>", "Caption": "Linux" } ] })";
    const ArchiveFiles records{{"a", WideBytes(snmp)}, {"b", WideBytes(oneObject)}};
    EXPECT_EQ(Upload(client, goodQuery, MakeArchive(records))->status, 200);
    client.Post("/servlets/DataAgentHandlerServlet?agentKey=K1&requestId=1", WideBytes(snmp), "");
    const std::string inTheOrderOfTheDevice =
        "<table><tr><th>OID</th><th>Value</th></tr>\n<tr><td>.1.1.1</td><td>lo</td></tr>\n"
        "<tr><td>.1.1.2</td><td>&lt;b&gt;</td></tr>\n<tr><td>.1.2</td><td class=soft>no value</td></tr>\n"
        "<tr><td>.1.3</td><td class=bad>no answer</td></tr>\n</table>\n";
    for (const std::string& shown :
         {inTheOrderOfTheDevice + "</div>\n",  // the record
          inTheOrderOfTheDevice + "</td>",     // the answer
          "<h3>System</h3><table><tr><th>Property</th><th>Value</th></tr>\n<tr><td>Caption</td><td>Linux</td></tr>\n"
          "<tr><td>Version</td><td>&lt;6&gt;</td></tr>\n</table>"s})
        EXPECT_THAT(Page(), HasSubstr(shown));
}

}  // namespace

}  // namespace kv::lab::test

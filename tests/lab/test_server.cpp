// The lab's server over real HTTP.
#include <atomic>
#include <gmock/gmock.h>
#include <iterator>
#include <thread>

#include "lab/store/requests.h"
#include "tests/lab/lab_helpers.h"

namespace kv::lab::test {

namespace {

using ::testing::HasSubstr;

constexpr const char* goodQuery = "AGENTKEY=LAB1&FILENAME=Agent_LAB1_1.zip";

class LabServing : public LabOnEach {
  protected:
    httplib::Result Get(const std::string& path) { return client.Get(path); }
    std::string Enrol(const std::string& query) {
        return Get("/servlets/RegisterAgent?" + query)->get_header_value("AgentKey");
    }

    std::string goodZip = MakeArchive({{"data/Agent_LAB1_2.txt", WideBytes(R"({ "a": "1" })")},
                                       {"data/Agent_LAB1_3.txt", WideBytes(R"({ "b": [ { "c": "ü" } ] })")}});
};

TEST_P(LabServing, GivesEachAgentItsKey) {
    const std::tuple<const char*, const char*, const char*> rows[] = {
        {"first agent", "agentKey=HUBCENTER&agentID=one&agentDNS=one.example", "LAB1"},
        {"the same name in another domain", "agentKey=hubcenter&agentID=one&agentDNS=one.elsewhere", "LAB2"},
        {"the first again, its key lost", "agentKey=HUBCENTER&agentID=one&agentDNS=one.example", "LAB1"},
        {"a key that is next in line", "agentKey=LAB3&agentID=four&agentDNS=four.example", "LAB3"},
        {"a new agent skips the taken key", "agentKey=HUBCENTER&agentID=five&agentDNS=five.example", "LAB4"},
    };
    for (const auto& [title, query, key] : rows) EXPECT_EQ(Enrol(query), key) << title;
    EXPECT_EQ(Get("/servlets/RegisterAgent?agentKey=a%0D%0AEvil:%201")->status, 400) << "not a key";
    EXPECT_EQ(Agents(store).size(), 4U);
}

TEST_P(LabServing, KeepsARepeatedUploadOnce) {
    EXPECT_EQ(Upload(client, goodQuery, goodZip)->status, 200);
    EXPECT_EQ(Upload(client, goodQuery, goodZip)->status, 200);
    const auto kept = testing::ElementsAre(R"(data/Agent_LAB1_2.txt { "a": "1" })",
                                           R"(data/Agent_LAB1_3.txt { "b": [ { "c": "ü" } ] })");
    EXPECT_THAT(StoredRecords(store), kept) << "the repetition is accepted, not stored";
    const ArchiveFiles longer{{"data/Agent_LAB1_2.txt", WideBytes(R"({ "a": "1" })")},
                              {"data/more.txt", WideBytes("2")}};
    EXPECT_EQ(Upload(client, goodQuery, MakeArchive(longer))->status, 200);
    EXPECT_EQ(Upload(client, goodQuery, MakeArchive({longer[0]}))->status, 200);
    EXPECT_EQ(Upload(client, "AGENTKEY=LAB2&FILENAME=Agent_LAB1_1.zip", MakeArchive({longer[0]}))->status, 200);
    EXPECT_EQ(StoredRecords(store).size(), 6U) << "other content, or another agent, is another upload";
    EXPECT_EQ(CountAll(store).zips, 4);
    EXPECT_EQ(Agents(store).size(), 2U) << "an upload makes an agent known";
}

TEST_P(LabServing, KeepsNothingOfAMalformedZip) {
    std::string badCrc = goodZip;
    badCrc[badCrc.find("Agent_LAB1_2.txt") + 20] ^= 1;
    const std::string bomb = MakeArchive({{"ok.txt", WideBytes("1")}, {"bomb.txt", std::string(65 << 20, 'x')}});
    const std::pair<std::string, std::string> rows[] = {
        {badCrc, "the entry data/Agent_LAB1_2.txt cannot be read: "},
        {bomb, "the entry bomb.txt unpacks to too much\n"},
        {"no zip", "the body is not a good zip: "},
    };
    for (const auto& [body, reason] : rows) {
        const httplib::Result answer = Upload(client, goodQuery, body);
        ASSERT_TRUE(answer) << reason;
        EXPECT_EQ(answer->status, 400) << reason;
        EXPECT_THAT(answer->body, ::testing::StartsWith(reason));
    }
    EXPECT_THAT(StoredRecords(store), ::testing::IsEmpty()) << "nor good entries";
    EXPECT_EQ(LatestRefusals(store, 9).size(), std::size(rows));
}

TEST_P(LabServing, ShowsValuesWithoutTheirMarkup) {
    const std::string evil = "<i title=\"evil\">&'";
    const std::string encoded = "%3Ci%20title=%22evil%22%3E%26'";
    Enrol("agentKey=K1&agentDNS=" + encoded + "&osName=" + encoded + "&customerName=" + encoded);
    Get("/servlets/DataAgentHandlerServlet?agentKey=K1&action=" + encoded + "&requestId=" + encoded);
    Upload(client, "AGENTKEY=" + encoded + "&FILENAME=" + encoded, "no zip");
    const ArchiveFiles entries{
        {evil, WideBytes(R"({ "ERRORMSG": "<i>", "<i>": [ { "<i>": "<i>", "n": 4711 } ] })")},
        {"snmp", WideBytes(R"({ "OID": ".1.1", "STATUS": "<i>", ".1.1": { ".1.1.1": "<i>" } })")},
        {"script", WideBytes("<i>plain</i>")}};
    EXPECT_EQ(Upload(client, "AGENTKEY=K1&FILENAME=" + encoded, MakeArchive(entries))->status, 200);
    std::string pages;
    for (const char* path : {"/", "/records", "/requests", "/agents", "/record/1", "/record/2", "/record/3"})
        pages += Get(path)->body;
    EXPECT_THAT(pages, testing::Not(testing::ContainsRegex("<i[ >]")));
    for (const char* text : {"&lt;i title=&quot;evil&quot;&gt;&amp;&#39;", ">4711</a></span></td>",
                             "<tr><td>.1.1.1</td><td>&lt;i&gt;</td></tr>", ">&lt;i&gt;plain&lt;/i&gt;</pre>"})
        EXPECT_THAT(pages, HasSubstr(text));
}

TEST_P(LabServing, PlansAreDownloadedBesideUploads) {
    AddConfiguration(store, "K1", "K1", "a plan");
    std::atomic<bool> done = false;
    std::thread uploader([&] {
        httplib::Client sender("127.0.0.1", server->port());
        const std::string zip = MakeArchive({{"f.txt", WideBytes(R"({ "X": [ { "V": 1 } ] })")}});
        for (int number = 0; !done; ++number)
            EXPECT_EQ(Upload(sender, "AGENTKEY=K1&FILENAME=" + std::to_string(number), zip)->status, 200);
    });
    for (int times = 0; times < 60; ++times) EXPECT_EQ(client.Get("/conf/1/queryconf.zip")->body, "a plan");
    done = true;
    uploader.join();
}

INSTANTIATE_TEST_SUITE_P(Database, LabServing, eachKind, KindName);

}  // namespace

}  // namespace kv::lab::test

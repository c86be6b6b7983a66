// What the views say of records that agents uploaded, over real HTTP.
#include <fmt/format.h>
#include <fmt/printf.h>
#include <gmock/gmock.h>

#include "lab/store/record_text.h"
#include "lab/store/requests.h"
#include "tests/lab/lab_helpers.h"

namespace kv::lab::test {

namespace {

using ::testing::AllOf;
using ::testing::ContainsRegex;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;

class Views : public LabOnEach {
  protected:
    /// Of a page its changing part.
    std::string Get(const std::string& path) {
        const httplib::Result answer = client.Get(path);
        EXPECT_EQ(answer->status, 200) << path << ": " << answer->body;
        const std::size_t main = answer->body.find("<main");
        return main == std::string::npos ? answer->body : answer->body.substr(main);
    }

    /// The rows of a table in JSON, each with the named columns and "|" between.
    std::vector<std::string> Rows(const std::string& path, const std::vector<const char*>& columns) {
        const ParsedJson document = ParseJson(Get(path));
        std::vector<std::string> rows;
        json_object_object_foreach(document.value.get(), name, list) {
            static_cast<void>(name);
            for (std::size_t at = 0; at < json_object_array_length(list); ++at) {
                std::string& row = rows.emplace_back();
                for (const char* const column : columns) {
                    json_object* const value = json_object_object_get(json_object_array_get_idx(list, at), column);
                    row += column == columns.front() ? "" : "|";
                    row += value ? json_object_get_string(value) : "null";
                }
            }
        }
        return rows;
    }
};

const std::string agentServlet = "/servlets/DataAgentHandlerServlet?agentKey=LAB1";
constexpr const char* goodDisks =
    R"({ "AGENTKEY": "LAB1", "DATACOLLECTTIME": "@", "ERRORMSG": "NO ERROR", "Disks": [ { "DeviceID": "/", "FreeSpace": "7" } ] })";
constexpr const char* badDisks =
    R"({ "AGENTKEY": "LAB1", "DATACOLLECTTIME": "@", "ERRORMSG": "FAILED:<script>alert(1)</script>", "Disks": [ ] })";
constexpr const char* badPrinter =
    R"({ "AGENTKEY": "S1", "DATACOLLECTTIME": "@", "POLICY_NAME": "Printer", "OID": ".1.3", "STATUS": "FAILURE" })";

TEST_P(Views, TellWhatFailsAndSinceWhenItIsGoodAgain) {
    Send("LAB1", 9, {badDisks, badPrinter, ""});
    Send("LAB1", 8, {badDisks, badPrinter});
    Send("LAB1", 7, {goodDisks});
    const std::vector<std::string> problems =
        Rows("/problems.json", {"agent", "device", "name", "reason", "times", "good_since"});
    EXPECT_THAT(problems, ElementsAre("LAB1|||empty record: the script printed nothing|1|null",
                                      HasSubstr("LAB1|S1|Printer|no answer from the device"),
                                      "LAB1||Disks|FAILED:<script>alert(1)</script>|2|" + UtcText(begun - 7 * minute)));
    EXPECT_THAT(Rows("/summary.json",
                     {"agents_in_contact", "devices", "sources", "failing_sources", "records", "failed_records"}),
                ElementsAre("1|1|3|2|6|5"));
    EXPECT_THAT(Rows("/problems.json?device=S1", {"name", "times"}), ElementsAre("Printer|2"));
    EXPECT_THAT(Rows("/problems.json?name=(unnamed%20record)", {"times"}), ElementsAre("1"));
    EXPECT_THAT(Rows("/problems.json?agent=LAB2", {"times"}), IsEmpty());
    EXPECT_THAT(Get("/"), AllOf(HasSubstr("(unnamed record)"), HasSubstr("good again since"),
                                HasSubstr(">1 / 1</b>agent"), HasSubstr(">1</b>device"), HasSubstr(">6</b>records"),
                                HasSubstr(">2</b>failing now"), HasSubstr(">83 %</b>of the records failed")));
}

TEST_P(Views, ShowRecordsByTheTimeOfTheirCollection) {
    Send("LAB1", 2, {goodDisks});
    Send("LAB1", 90, {badDisks});
    Send("LAB2", 5, {goodDisks, badPrinter});
    Send("LAB2", -60 * 30, {goodDisks});  // its clock is more than a day ahead
    const std::vector<const char*> columns{"number", "agent", "failed"};
    EXPECT_THAT(Rows("/records.json", columns),
                ElementsAre("5|LAB2|false", "1|LAB1|false", "4|LAB2|true", "3|LAB2|false"));
    EXPECT_THAT(Rows("/records.json?range=1d", {"number"}), ElementsAre("5", "1", "4", "3", "2"));
    EXPECT_THAT(Rows("/records.json?range=1d&failed=1", {"number"}), ElementsAre("4", "2"));
    EXPECT_THAT(Rows("/records.json?range=1d&agent=LAB1&limit=1", {"number"}), ElementsAre("1"));
    EXPECT_THAT(Rows("/records.json?after=2&limit=2", {"number", "values"}),
                ElementsAre(HasSubstr("3|{ \"AGENTKEY\""), HasSubstr("4|{")));
    const std::string first = fmt::format("&before={}-4", (begun - 5 * minute) / 1000 * 1000);
    EXPECT_THAT(Rows("/records.json?range=1d" + first, {"number"}), ElementsAre("3", "2"));
    EXPECT_THAT(Rows("/records.json?range=1d&agent=LAB2" + first, {"number"}), ElementsAre("3"));
    EXPECT_THAT(Get("/records.csv?failed=1"),
                AllOf(HasSubstr("number,agent,device,name,collected"), HasSubstr("\r\n4,LAB2,S1,Printer,")));
    const std::string collected = UtcText(begun - 5 * minute);
    const bool isToday = collected.substr(0, 10) == UtcText(Now()).substr(0, 10);
    EXPECT_THAT(
        Get("/records?range=1d&failed=1"),
        AllOf(HasSubstr("<a href=\"/records?range=1d&amp;agent=LAB2&amp;failed=1\">LAB2</a>"),
              HasSubstr("<a href=\"/records?range=1d&amp;agent=LAB2&amp;device=S1&amp;failed=1\">S1</a>"),
              HasSubstr(fmt::format("title='{}'>{}<", collected, isToday ? collected.substr(11, 8) : collected))));
    EXPECT_THAT(Get("/records?failed=1"), AllOf(HasSubstr("/record/4"), Not(HasSubstr("/record/3"))));
    EXPECT_THAT(Get("/record/1"),
                AllOf(HasSubstr("FreeSpace"), HasSubstr("/record/2>← older"), Not(HasSubstr("newer →</a>"))));
}

TEST_P(Views, ShowTheNumbersOfARecordWithUnitsAndPlots) {
    Send("LAB1", 2,
         {R"({ "DATACOLLECTTIME": "@", "ERRORMSG": "NO ERROR", "Disks": [
                  { "DeviceID": "/", "FreeSpace": "42285821952", "Odd": "-3", "LoadPercentage": 7, "PID": "12" } ] })",
          R"({ "AGENTKEY": "SW", "STATUS": "SUCCESS", "OID": ".1.3.6.1.2.1.2.2.1.10", "DATACOLLECTTIME": "@",
               ".1.3.6.1.2.1.2.2.1.10": { ".1.3.6.1.2.1.2.2.1.10.2": "2997210462" } })"});
    const std::string link = "<a href=\"/plot?agent=LAB1&amp;device=";
    const std::string disk = link + "%28the%20agent%20itself%29&amp;name=Disks&amp;member=%2F%20";
    EXPECT_THAT(Get("/record/1"),
                AllOf(HasSubstr(disk + "FreeSpace\" title='its plot'>42285821952</a></span> <span class='soft number'>"
                                       "(42.3 GB)</span>"),
                      HasSubstr(">7</a></span> <span class='soft number'>%</span>"), HasSubstr(">-3</a></span></td>"),
                      HasSubstr("<span class=number>12</span>")));
    EXPECT_THAT(Get("/record/2"), AllOf(HasSubstr("<td title=\".1.3.6.1.2.1.2.2.1.10.2\">ifInOctets 2</td>"),
                                        HasSubstr(link + "SW&amp;"), HasSubstr("(3.0 GB)")));
    Send("LAB1", 60 * 24 * 8, {goodDisks});
    EXPECT_THAT(Get("/record/3"), AllOf(HasSubstr("FreeSpace"), Not(HasSubstr("/plot"))));
}

TEST_P(Views, DrawEachRecordOverTime) {
    Send("LAB1", 12, {goodDisks, badPrinter});
    Send("LAB1", 12, {badDisks});
    Send("LAB1", 3, {goodDisks});
    EXPECT_THAT(Rows("/tracks.json", {"device", "name", "records", "failed", "record", "reason"}),
                ElementsAre(HasSubstr("S1|Printer|1|1|2|no answer"), "|Disks|2|1|3|FAILED:<script>alert(1)</script>",
                            "|Disks|1|0|4|"));
    EXPECT_THAT(Rows("/tracks.json?failed=1", {"device"}), ElementsAre("S1", "", ""));
    Send("LAB10", 3, {goodDisks});
    Send("LAB2", 3, {goodDisks});
    EXPECT_THAT(Rows("/tracks.json?range=15m", {"agent"}), ElementsAre("LAB1", "LAB1", "LAB1", "LAB2", "LAB10"));
    EXPECT_THAT(Get("/"), AllOf(HasSubstr("/record/3 "), HasSubstr("tick some"), HasSubstr("tick failed")));
}

TEST_P(Views, ShowTheFirstMinute) {
    EXPECT_THAT(Get("/"), HasSubstr("No agent has called yet"));
    client.Get("/servlets/RegisterAgent?agentKey=LAB1&agentID=a%3Cb");
    EXPECT_THAT(Get("/"),
                AllOf(HasSubstr("a&lt;b"), HasSubstr("data-left="), HasSubstr("What is collected is not known")));
    AddConfiguration(store, "LAB1", "LAB1",
                     MakeArchive({{"queryconf.txt", R"({ "WorkFlows": [ { "wfname": "W", "recordSetName": [
                         { "Name": "Planned", "script": "x.sh" } ] } ] })"}}));
    EXPECT_THAT(Get("/fragment"), HasSubstr("Planned"));
    EXPECT_THAT(Get("/fragment?agent=LAB2"), Not(HasSubstr("data-left=")));
    Send("LAB1", 0, {goodDisks});
    EXPECT_THAT(Get("/fragment"), AllOf(Not(HasSubstr("data-left=")), HasSubstr("Nothing has failed")));
}

TEST_P(Views, ShowRequestsWithTheirAnswers) {
    const std::string id =
        AddRequest(store, {"LAB1", "TEST_MONITOR", "", {{"MONITOR_NAME", "<Disks>"}, {"COMMUNITY", "s3cret"}}});
    EXPECT_THAT(Get("/requests") + Get("/requests.csv"), AllOf(HasSubstr("(hidden)"), Not(HasSubstr("s3cret"))));
    EXPECT_THAT(Rows("/requests.json", {"id", "state", "answers"}), ElementsAre(id + "|waiting|0"));
    const auto answer = [&](const std::string& text) {
        client.Post(agentServlet + "&action=TEST_MONITOR&requestId=" + id, WideBytes(text), "text/plain");
    };
    client.Get(agentServlet);
    answer(R"({ "Disks": [ { "DeviceID": "/home" } ] })");
    EXPECT_THAT(Rows("/requests.json?agent=LAB1", {"state", "answers"}), ElementsAre("answered|1"));
    EXPECT_THAT(Rows("/requests.json?agent=LAB2", {"state"}), IsEmpty());
    EXPECT_THAT(Get("/requests"),
                AllOf(HasSubstr("&lt;Disks&gt;"), HasSubstr("/home"), Not(HasSubstr("failed</span>"))));
    const std::tuple<const char*, const char*> failures[] = {
        {R"({ "ERRORMSG": "Unable to stop Service", "%s": [ { "Cron": "FAILED" } ] })", "Unable to stop Service"},
        {R"({ "OID": ".1.3", "STATUS": "FAILURE", "%s": 1 })", "no answer from the device, or not to all that was "},
        {R"({ "SYSOID": "NO RESPONSE", "%s": 1 })", "the device did not answer"},
    };
    for (const auto& [text, failure] : failures) {
        answer(fmt::sprintf(text, id));
        EXPECT_THAT(Rows("/requests.json", {"state", "failure"}),
                    ElementsAre(testing::StartsWith(std::string("answered|") + failure)));
    }
    EXPECT_THAT(Get("/requests"), AllOf(HasSubstr("answered: failed"), HasSubstr("(the request's id)")));
}

TEST_P(Views, TellWhatBecameOfAPlan) {
    const std::string id = AddConfiguration(store, "LAB1", "LAB1", "a zip");
    const auto plan = [this] { return Rows("/plans.json", {"plan", "state"}); };
    const auto said = [](const char* words) { return ElementsAre(HasSubstr(words)); };
    EXPECT_THAT(plan(), said("LAB1|the agent does not know of it yet"));
    client.Get(agentServlet);
    EXPECT_THAT(plan(), said("has not downloaded it yet"));
    client.Get(agentServlet + "&action=DOWNLOAD_QUERYCONF&moId=LAB1&status=success&requestId=" + id);
    EXPECT_THAT(plan(), said("not taken")) << "the agent says success in any case";
    EXPECT_THAT(Get("/requests"), AllOf(HasSubstr("answered: not taken"), HasSubstr("passed up to request " + id)));
    EXPECT_EQ(client.Get("/conf/1/queryconf.zip")->body, "a zip");
    EXPECT_THAT(plan(), said("the agent has it"));
    EXPECT_THAT(Get("/requests"), HasSubstr("class='long'>the agent has it"));
}

TEST_P(Views, RefuseWhatTheyCannotRead) {
    const std::tuple<const char*, int, const char*> rows[] = {
        {"/?range=2y", 400, "the parameter range is 15m, 1h, 1d or 1w\n"},
        {"/records?before=x", 400, "the parameter before is not a place in the list of records\n"},
        {"/records.json?after=x", 400, "the parameter after is not a number\n"},
        {"/record/x", 400, "a record is at /record/ and its number\n"},
        {"/record/7", 404, "the database does not hold record 7\n"},
        {"/agents.xml", 404, "there is nothing here\n"},
    };
    for (const auto& [path, status, text] : rows) {
        const httplib::Result answer = client.Get(path);
        EXPECT_EQ(answer->status, status) << path;
        EXPECT_EQ(answer->body, text) << path;
        const httplib::Result page = client.Get(path, {{"Accept", "text/html,*/*"}});
        EXPECT_EQ(page->status, status) << path;
        EXPECT_EQ(page->get_header_value("Content-Type"), "text/html; charset=utf-8") << path;
        EXPECT_THAT(page->body, AllOf(HasSubstr(text), HasSubstr("<a href=/>"))) << path;
    }
    EXPECT_EQ(client.Get("/servlets/Odd%3Cb", {{"Accept", "text/html"}})->body, "there is no such servlet\n")
        << "not a page, whoever asks";
}

INSTANTIATE_TEST_SUITE_P(Database, Views, eachKind, KindName);

}  // namespace

}  // namespace kv::lab::test

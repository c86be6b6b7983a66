// kvlab on its command line, and requests to agents, which the agents fetch and report over real HTTP.
#include <fmt/chrono.h>
#include <fmt/format.h>
#include <gmock/gmock.h>

#include "foundation/registry_store.h"
#include "lab/store/record_text.h"
#include "lab/store/requests.h"
#include "tests/lab/lab_helpers.h"
#include "tests/support/linux/shell.h"

namespace kv::lab::test {

namespace {

using ::testing::MatchesRegex;

class Kvlab : public LabOnEach {
  protected:
    kv::test::ShellOutcome Run(const std::string& words) const {
        return kv::test::RunShell("LC_ALL=" + locale + " COLUMNS=80 '" KVLAB_PROGRAM "' " + words + " 2>'" + errors +
                                  "'");
    }
    kv::test::ShellOutcome RunOnDatabase(const std::string& words) const {
        return Run(words + " --database '" + database + "'");
    }
    std::string Errors() const { return Read(errors); }

    std::string errors = folder / "errors";
    std::string locale = "C.UTF-8";
};

TEST_P(Kvlab, EndsWithAnExitCodeAndALine) {
    const std::string on = " --database '" + database + "'";
    const std::string plan = folder / "plan", empty = folder / "empty", broken = folder / "broken";
    const std::string absent = folder / "absent.db";
    Write(plan, "{ \"WorkFlows\": 1 }");
    Write(empty, "");
    Write(broken, "{ \"WorkFlows\": [\n]]");
    const std::tuple<std::string, int, const char*> rows[] = {
        {"--help", 0, ""},
        {"--version", 0, ""},
        {"fault set --servlet '*' --drop --cut" + on, 2, "exactly one"},
        {"serve --port 65536" + on, 2, "'65536'"},
        {"serve --port= --listen 192.0.2.1" + on, 2, "''"},
        {"--database x agents", 2, "--database stands behind agents"},
        {"conf push K1 " + absent + on, 3, "absent.db"},
        {"agents --database " + absent, 3, "there is no database"},
        {"conf push --no-flag K1 " + plan + on, 1, "WorkFlows"},
        {"conf push --no-flag K1 " + broken + on, 1, "(line 2); kvagentctl check "},
        {"serve --tls " + plan + " absent.key" + on, 1, "absent.key: No such file"},
        {"serve --tls " + plan + " /dev/null" + on, 1, "plan holds no certificate in PEM"},
        {"serve --keep 7" + on, 2, "such as 7d, not '7'"},
        {"serve --plan " + broken + on, 1, "broken is not a plan"},
        {"serve --plan absent" + on, 3, "there is no file absent"},
        {"serve --listen 192.0.2.1" + on, 1, "cannot listen on 192.0.2.1"},
        {"records --csv --json" + on, 2, "only one of"},
        {"records --since yesterday" + on, 2, "'yesterday'"},
        {"records --until 2026-02-30" + on, 2, "a time in UTC"},
        {"records --since 1h --until 2h" + on, 2, "before that of --until"},
        {"plot Disks" + on, 3, "no record has the name 'Disks'"},
        {"agents --database mysql://u:hidden@h/d", 1, "a file or postgresql://..., not mysql://...\n"},
        {"agents --database '" + empty + "'", 1, "holds no tables of a lab yet; kvlab serve"},
        {"fleet --server http://127.0.0.1:99999", 2, "takes http://HOST:PORT"},
        {"fleet --server https://h --ca " + plan, 1, "plan holds no certificate in PEM"},
        {"fleet --server https://h --prefix 'a b'", 2, "'a b'"},
        {"fleet --server http://127.0.0.1:1 --agents 1 --rate 0", 2, "--rate takes"},
    };
    for (const auto& [words, exitCode, text] : rows) {
        SCOPED_TRACE(words);
        EXPECT_EQ(Run(words).exitCode, exitCode);
        const std::string lines = Errors();
        EXPECT_THAT(lines, testing::HasSubstr(text));
        EXPECT_EQ(std::count(lines.begin(), lines.end(), '\n'), exitCode == 0 ? 0 : 1) << lines;
    }
    EXPECT_FALSE(std::filesystem::exists(absent));
}

TEST_P(Kvlab, PrintsAndDrawsRecords) {
    const auto disks = [](const std::string& error, int free) {
        return fmt::format(R"({{"DATACOLLECTTIME":"@","ERRORMSG":"{}","Disks":[{{"Name":"/","FreeSpace":"{}"}}]}})",
                           error, free);
    };
    Send("A1", 117, {disks("NO ERROR", 1000)});
    Send("A1", 15, {disks("NO ERROR", 2000)});
    Send("A1", 1, {disks("FAILED", 3000)});
    Send("A2", 0, {R"({"MSPCUSTOMERID":"C","ERRORMSG":"NO ERROR","Memory":[]})"});
    EXPECT_THAT(RunOnDatabase("records --agent A1 --since 1h").output, MatchesRegex("2\tA1\t.*2000.*\n3\tA1.*3000.*"));
    const std::string halfAnHour = fmt::format("records --agent A1 --since {:%H:%M}", fmt::gmtime(begun / 1000 - 1800));
    EXPECT_THAT(RunOnDatabase(halfAnHour).output, MatchesRegex("2\tA1\t.*\n3\tA1.*"));
    EXPECT_THAT(RunOnDatabase("records --failed --name Disks --csv").output,
                MatchesRegex("number,agent,.*\n3,A1,,Disks,.*,yes,FAILED,Agent_A1_3.zip,.*.txt,[0-9]+\r"));
    EXPECT_EQ(RunOnDatabase("records --until 2020-01-01").output, "");
    const std::string plot = RunOnDatabase("plot Disks --since 3h").output;
    EXPECT_THAT(plot, testing::StartsWith("A1 · Disks / FreeSpace: 3.0 kB\n    3.0 kB |"));
    EXPECT_THAT(plot, testing::HasSubstr("\n    1.0 kB |"));
    EXPECT_THAT(RunOnDatabase("plot Disks --since 3h --member FreeSpace").output, testing::HasSubstr("Disks / FreeSp"));
    EXPECT_THAT(RunOnDatabase("plot Disks --since 30m --csv").output,
                MatchesRegex(".*Z,2000,2000,2000,bytes\r\n.*Z,3000,3000,3000,bytes\r"));
    const std::tuple<const char*, int, const char*> rows[] = {
        {"records --name Dsks", 3, "no record has the name 'Dsks'; did you mean 'Disks'?"},
        {"records --device S9", 3, "no record is of the device 'S9'; those that came: ''"},
        {"records --agent B1", 3, "no agent has the key 'B1'; those that came: A1"},
        {"request list --agent AA1", 3, "no agent has the key 'AA1'; did you mean 'A1'?"},
        {"request add --agent AA1 --type T", 3, "did you mean 'A1'?; --no-flag only queues"},
        {"fault clear --number 7 --servlet conf", 3, "no fault with the number 7 for conf is set"},
        {"records --name '\xFF'", 3, "those that came: Disks, Memory"},
        {"records --until 2020-01-01 --csv", 0, "no record fits; the newest record is of 20"},
        {"records --agent A1 --name Memory", 0, "no record fits; these names have not come together"},
        {"plot Disks --member '/ FreSpace'", 3, "no number '/ FreSpace'; did you mean '/ FreeSpace'?"},
        {"plot Disks --member freespac", 3, "no number 'freespac'; did you mean 'FreeSpace'?"},
        {"plot Disks --since 2s --csv", 0, "no number of this record was collected since"},
        {"records --json >/dev/full", 1, "cannot be written"},
    };
    for (const auto& [words, exitCode, text] : rows) {
        EXPECT_EQ(RunOnDatabase(words).exitCode, exitCode) << words;
        EXPECT_THAT(Errors(), testing::HasSubstr(text)) << words;
    }
    EXPECT_THAT(RunOnDatabase("records --json --failed").output,
                MatchesRegex(".*\"name\":\"Disks\".*\"values\":\\{.*\"3000\"\\}]\\}\\}]\\}"));
}

TEST_P(Kvlab, DrawsWhatChangesAndNamesTheRest) {
    for (const int minutesAgo : {15, 1}) {
        std::string rows = R"({"Name":"a","Size":"7"})";
        for (int row = 0; row < 300; ++row) rows += fmt::format(R"(,{{"Name":"r{}","Load":"{}"}})", row, -minutesAgo);
        Send("A1", minutesAgo, {R"({"DATACOLLECTTIME":"@","Rows":[)" + rows + "]}"});
    }
    locale = "C";
    const std::string plot = RunOnDatabase("plot Rows").output;
    EXPECT_THAT(plot, testing::StartsWith("A1 - Rows r0 Load: -1\n"));
    EXPECT_TRUE(std::all_of(plot.begin(), plot.end(), [](char byte) { return static_cast<signed char>(byte) > 0; }));
    EXPECT_THAT(plot,
                MatchesRegex(".*\nA1 - Rows r5 Load.*UTC\n\nnot drawn: r6 Load, r7 Load[^\n]* and 1[0-9][0-9] more\n"
                             "unchanged: a Size 7 B[^\n]*\n--member[^\n]*"));
    EXPECT_THAT(Errors(), testing::HasSubstr("only 200 values were read"));
    EXPECT_THAT(RunOnDatabase("plot Rows --member Size").output, testing::StartsWith("A1 - Rows a Size: 7 B\n"));
    EXPECT_EQ(Errors(), "");
}

class Requests : public Kvlab {
  protected:
    Requests() { NoteContact(store, "K1", ""); }

    std::string List() {
        const httplib::Result answer = client.Get(servlet);
        return answer ? DecodeRecord("", answer->body).text : "broken off";
    }
    void Answer(const std::string& id) { client.Post(servlet + "&action=X&requestId=" + id, WideBytes("{}"), ""); }

    /// The states of all requests, with a blank after each.
    std::string States() {
        std::string states;
        for (const Request& request : lab::Requests(store, "K1")) states += request.state + " ";
        return states;
    }

    std::string servlet = "/servlets/DataAgentHandlerServlet?agentKey=K1";
};

TEST_P(Requests, AreListedThreeTimesUnlessAnswered) {
    AddRequest(store, {"K1", "NOTHING_KNOWN", "", {}});
    AddRequest(store, {"K1", "TEST_MONITOR", "", {{"RESPONSE_NEEDED", "YES"}}});
    AddRequest(store, {"K1", "DELETE_DEVICE", "", {}});
    List();
    client.Get(servlet + "&action=DELETE_REQUEST&requestId=1");
    EXPECT_EQ(States(), "dropped listed listed ");
    const std::string list = List();
    AddFault(store, {0, "DataAgentHandlerServlet", FaultKind::cut, 0, 1});
    EXPECT_EQ(List(), "broken off") << "and not counted";
    EXPECT_EQ(List(), list);
    EXPECT_EQ(States(), "dropped listed listed ");
    EXPECT_EQ(List(), "");
    EXPECT_EQ(States(), "dropped unanswered done ");
    Answer("2");
    EXPECT_EQ(States(), "dropped answered done ");
}

TEST_P(Requests, AreListedInTheirOrder) {
    ASSERT_EQ(SetOCAgentKey(u"K1"), 0U);
    EXPECT_EQ(RunOnDatabase("request add --agent K1 --type B --id 2 --set 'Q=\"ä\" = \\ /' --set E=").output, "2");
    EXPECT_EQ(RunOnDatabase("request add --agent K1 --type A").output, "3") << "2 is taken";
    EXPECT_EQ(RunOnDatabase("request add --agent K1 --type A --id 2").exitCode, 1);
    OptionalText flag;
    GetRequestAvailable(flag);
    EXPECT_EQ(flag, u"YES");
    EXPECT_EQ(List(), R"({"RequestList":[{"AGENT_REQUEST_ID":"2","REQUEST_TYPE":"B","Q":"\"ä\" = \\ /","E":""},)"
                      R"({"AGENT_REQUEST_ID":"3","REQUEST_TYPE":"A"}]})");
    Answer("3");
    EXPECT_EQ(List(), "");
    EXPECT_THAT(RunOnDatabase("request list --agent K1").output,
                MatchesRegex("1\tK1\t2\tB\tdone\t.*Z\t.*Z\t.*Z\t1\t.*\n2\tK1\t3\tA\tanswered\t.*\\{\\}"));
    EXPECT_THAT(RunOnDatabase("request answers --agent K1 --id 3").output, MatchesRegex(".*Z\tK1\t3\tX\t\\{\\}"));

    ASSERT_EQ(SetOCAgentKey(u"K3"), 0U);
    EXPECT_EQ(RunOnDatabase("request add --agent K1 --type D").exitCode, 1) << "the agent of this computer is another";
    EXPECT_EQ(States(), "done answered ");
}

INSTANTIATE_TEST_SUITE_P(Database, Kvlab, eachKind, KindName);
INSTANTIATE_TEST_SUITE_P(Database, Requests, eachKind, KindName);

}  // namespace

}  // namespace kv::lab::test

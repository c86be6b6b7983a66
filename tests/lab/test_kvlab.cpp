// kvlab, run as its users run it; and requests to agents, ordered by it, fetched and reported over real HTTP.
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <gmock/gmock.h>
#include <map>
#include <sstream>
#include <sys/wait.h>

#include "foundation/registry_store.h"
#include "lab/record_text.h"
#include "lab/requests.h"
#include "tests/lab/lab_helpers.h"

namespace kv::lab::test {

namespace {

using ::testing::HasSubstr;
using ::testing::MatchesRegex;

/// The program, started by a shell that says its number first; killed at the end of its life if it is still running.
class Program {
  public:
    explicit Program(const std::string& words)
        : output_(popen(("echo $$; exec '" KVLAB_PROGRAM "' " + words).c_str(), "r")), pid_(std::stoi(Line())) {}
    Program(Program&&) = delete;
    ~Program() {
        if (!output_) return;
        Signal(SIGKILL);
        ExitCode();
    }

    std::string Line() { return Read('\n'); }
    std::string Output() { return Read(EOF); }
    void Signal(int number) const { kill(pid_, number); }
    int ExitCode() {
        Output();  // a program that cannot write fails
        const int status = pclose(std::exchange(output_, nullptr));
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }

  private:
    std::string Read(int end) {
        std::string text;
        for (int c = fgetc(output_); c != EOF && c != end; c = fgetc(output_)) text += static_cast<char>(c);
        return text;
    }

    FILE* output_;
    pid_t pid_;
};

class Kvlab : public Lab {
  protected:
    Program Run(const std::string& words) const { return Program(words + " 2>'" + errors + "'"); }
    Program RunOnDatabase(const std::string& words) const { return Run(words + " --database '" + database + "'"); }
    std::string Errors() const { return Read(errors); }

    std::string errors = folder / "errors";
};

TEST_F(Kvlab, ExitCodesAndWords) {
    NoteContact(store, "K1", "");
    const std::string on = " --database '" + database + "'";
    Write(folder / "plan", "{ \"WorkFlows\": 1 }");
    const std::tuple<std::string, int, const char*> rows[] = {
        {"--help", 0, "usage: kvlab serve"},
        {"fault clear" + on, 0, ""},
        {"request add --agent K1 --type T --set =x" + on, 2, "NAME=VALUE"},
        {"request add --agent K1 --type T --set REQUEST_TYPE=x" + on, 2, "--type"},
        {"request add --agent K9 --type T" + on, 3, "K9"},
        {"conf push K1 " + std::string(folder / "absent.json") + on, 3, "absent.json"},
        {"conf push --no-flag K1 " + std::string(folder / "plan") + on, 1, "WorkFlows"},
        {"records --all" + on, 2, "unknown option '--all'"},
        {"serve --port 65536" + on, 2, "'65536'"},
        {"fault set --servlet Nothing --drop" + on, 2, "FileCollector"},
        {"fault set --servlet '*' --drop --cut" + on, 2, "exactly one"},
        {"agents --database " + std::string(folder / "absent.db"), 3, "there is no database"},
        {"agents --database " KVLAB_PROGRAM, 1, "database"},
        {"serve --listen 192.0.2.1" + on, 1, "cannot listen on 192.0.2.1"},
        {"serve --tls no.pem no.key" + on, 1, "no.pem"},
    };
    for (const auto& [words, exitCode, text] : rows) {
        SCOPED_TRACE(words);
        Program program = Run(words);
        const std::string output = program.Output();
        EXPECT_EQ(program.ExitCode(), exitCode);
        EXPECT_THAT(exitCode == 0 ? output : Errors(), HasSubstr(text));
        const std::string lines = Errors();
        EXPECT_EQ(std::count(lines.begin(), lines.end(), '\n'), exitCode == 0 ? 0 : 1) << lines;
    }
    EXPECT_FALSE(std::filesystem::exists(folder / "absent.db"));
}

TEST_F(Kvlab, AServerAndTheCommandsBesideIt) {
    Program serving("serve --port 0 --database '" + database + "' 2>&1");
    const std::string address = serving.Line();
    ASSERT_THAT(address, MatchesRegex("http://127\\.0\\.0\\.1:[0-9]+/"));
    const int port = std::stoi(address.substr(address.rfind(':') + 1));
    Program second = RunOnDatabase("serve --port " + std::to_string(port));
    EXPECT_EQ(second.ExitCode(), 1) << "the port is taken";

    httplib::Client beside("127.0.0.1", port);
    Program set = RunOnDatabase("fault set --servlet FileCollector --status 503");
    EXPECT_EQ(set.Output(), "1\n");
    EXPECT_EQ(RunOnDatabase("fault list").Output(), "1\tFileCollector\tstatus 503\t1\n");
    const std::string zip = MakeArchive({{"data/Agent_K1_2.txt", WideBytes("{ \"a\":\n \"b\\/c\" }")}});
    EXPECT_EQ(Upload(beside, "AGENTKEY=K1&FILENAME=Agent_K1_1.zip", zip)->status, 503);
    EXPECT_EQ(Upload(beside, "AGENTKEY=K1&FILENAME=Agent_K1_1.zip", zip)->status, 200);
    EXPECT_EQ(RunOnDatabase("fault list").Output(), "");
    EXPECT_THAT(RunOnDatabase("records --agent K1").Output(),
                MatchesRegex("1\tK1\tAgent_K1_1\\.zip\tAgent_K1_2\\.txt\t[-0-9]+ [:0-9]+Z\t\\{\"a\":\"b/c\"\\}\n"));
    EXPECT_THAT(RunOnDatabase("agents").Output(), HasSubstr("K1\t\t\t127.0.0.1\t"));
    Program follow = RunOnDatabase("records --follow");
    EXPECT_THAT(follow.Line(), HasSubstr("\tAgent_K1_2.txt\t"));
    Upload(beside, "AGENTKEY=K1&FILENAME=2", MakeArchive({{"second", WideBytes("\"\x1b[31m\u009B\"")}}));
    const std::string line = follow.Line();
    EXPECT_THAT(line, HasSubstr("\tsecond\t"));
    EXPECT_EQ(line.find_first_of("\x1b\xC2"), std::string::npos) << "nothing steers the terminal";

    serving.Signal(SIGTERM);
    EXPECT_EQ(serving.Output(), "") << "nothing on standard error either";
    EXPECT_EQ(serving.ExitCode(), 0);
}

class Requests : public Kvlab {
  protected:
    Requests() { NoteContact(store, "K1", ""); }

    std::string Get(const std::string& path) {
        const httplib::Result answer = client.Get(path);
        return answer ? answer->body : "broken off";
    }
    std::string List() { return DecodeRecord("", Get(servlet)).text; }

    /// "answer 2": that of the request 2; and so on.
    void Report(const std::string& what, const std::string& id) {
        if (what == "answer") client.Post(servlet + "&action=X&requestId=" + id, WideBytes("{}"), "");
        if (what == "drop") Get(servlet + "&action=DELETE_REQUEST&requestId=" + id);
        if (what == "notice")
            Get(servlet + "&action=DOWNLOAD_QUERYCONF&status=success&requestId=" + id + "&moId=K1,S1");
    }

    /// Each with a blank behind it.
    std::string States() {
        std::string states;
        for (const Request& request : lab::Requests(store, "K1")) states += request.state + " ";
        return states;
    }

    std::string servlet = "/servlets/DataAgentHandlerServlet?agentKey=K1";
};

TEST_F(Requests, LifeStories) {
    const std::map<std::string, NewRequest> kinds{
        {"test", {"K1", "TEST_MONITOR", "", {{"RESPONSE_NEEDED", "YES"}}}},
        {"quiet", {"K1", "STOP_SERVICE", "", {{"RESPONSE_NEEDED", "yes"}}}},
        {"plan", {"K1", "DOWNLOAD_QUERYCONF", "", {{"AGENT_KEY", "S1"}}}},
        {"alien", {"K1", "DOWNLOAD_QUERYCONF", "", {{"AGENT_KEY", "S9"}}}},
        {"delete", {"K1", "DELETE_DEVICE", "", {}}},
        {"odd", {"K1", "NOTHING_KNOWN", "", {}}},
    };
    const std::tuple<const char*, const char*, const char*> rows[] = {
        {"nothing is done before it is listed", "test delete", "waiting waiting "},
        {"past those in front, not those behind", "delete test odd list answer 2", "done answered listed "},
        {"not past those of another list", "delete list test answer 2", "listed answered "},
        {"listed again until it ends", "test list list answer 1 list", "answered "},
        {"listed three times", "test delete list list list list", "unanswered done "},
        {"an answer after that", "test list list list list answer 1", "answered "},
        {"what is lost does not count", "delete test list list cut hangup status list", "listed listed "},
        {"cut off on the way", "test delete cut", "waiting waiting "},
        {"a drop", "odd test delete list drop 2 list", "done dropped listed "},
        {"a drop comes after an answer", "test list answer 1 drop 1", "answered "},
        {"one notice for all plans, by the last request", "plan quiet plan delete list notice 4",
         "answered done answered done "},
        {"a plan that the notice leaves out", "alien plan list notice 2", "listed answered "},
        {"a notice is no answer to a test", "plan test list notice 2", "answered listed "},
        {"an answer to nothing", "test test list answer 9", "listed listed "},
    };
    // a step: a kind to add, a list, or a report and the place of its request among the row's
    for (const auto& [title, story, states] : rows) {
        SCOPED_TRACE(title);
        ExecuteScript(store.connection.get(), "DELETE FROM request");
        std::vector<std::string> ids;
        std::istringstream steps(story);
        for (std::string step; steps >> step;) {
            if (step == "cut") AddFault(store, {0, "DataAgentHandlerServlet", FaultKind::cut, 0, 1});
            if (step == "status") AddFault(store, {0, "*", FaultKind::status, 503, 1});
            if (step == "hangup") AddFault(store, {0, "*", FaultKind::drop, 0, 1});
            std::size_t place = 0;
            if (kinds.contains(step)) {
                ids.push_back(AddRequest(store, kinds.at(step)));
            } else if (step == "answer" || step == "drop" || step == "notice") {
                steps >> place;
                Report(step, place <= ids.size() ? ids[place - 1] : "unknown");
            } else {
                List();
            }
        }
        EXPECT_EQ(States(), states);
    }
}

TEST_F(Requests, TheListHoldsWhatWasAskedForInOrder) {
    ASSERT_EQ(SetOCAgentKey(u"K1"), 0U);
    EXPECT_EQ(RunOnDatabase("request add --agent K1 --type B --id 2 --set 'Q=\"ä\" = \\ /' --set E=").Output(), "2\n");
    EXPECT_EQ(RunOnDatabase("request add --agent K1 --type A").Output(), "3\n") << "2 is taken";
    EXPECT_EQ(RunOnDatabase("request add --agent K1 --type A --id 2").ExitCode(), 1);
    EXPECT_EQ(RunOnDatabase("request add --agent K2 --type C --no-flag").ExitCode(), 0) << "not heard of yet";
    OptionalText flag;
    GetRequestAvailable(flag);
    EXPECT_EQ(flag, u"YES");
    EXPECT_EQ(List(), R"({"RequestList":[{"AGENT_REQUEST_ID":"2","REQUEST_TYPE":"B","Q":"\"ä\" = \\ /","E":""},)"
                      R"({"AGENT_REQUEST_ID":"3","REQUEST_TYPE":"A"}]})");
    Report("answer", "3");
    EXPECT_EQ(List(), "");
    EXPECT_THAT(RunOnDatabase("request list --agent K1").Output(),
                MatchesRegex("1\tK1\t2\tB\tdone\t.*Z\t.*Z\t.*Z\t1\t.*\n2\tK1\t3\tA\tanswered\t.*\\{\\}\n"));
    EXPECT_THAT(Get("/"), HasSubstr("<span class=good>answered</span>"));
    EXPECT_THAT(RunOnDatabase("request answers --agent K1 --id 3").Output(), MatchesRegex(".*Z\tK1\t3\tX\t\\{\\}\n"));
    EXPECT_EQ(RunOnDatabase("request answers --id 2").ExitCode(), 3);

    ASSERT_EQ(SetOCAgentKey(u"K3"), 0U);
    EXPECT_EQ(RunOnDatabase("request add --agent K1 --type D").ExitCode(), 1) << "another agent's";
    EXPECT_THAT(Errors(), HasSubstr("--no-flag"));
    ASSERT_EQ(SetOCAgentKey(u"K1"), 0U);
    setenv("KVAGENT_STATE_DIR", (folder / "absent").c_str(), 1);
    EXPECT_EQ(RunOnDatabase("request add --agent K1 --type D").ExitCode(), 3) << "no registry";
    EXPECT_EQ(RunOnDatabase("request add --agent K1 --type D --state " + (folder / "state").string()).ExitCode(), 0);
    EXPECT_EQ(States(), "done answered waiting ");
}

TEST_F(Requests, ADatabaseOfTheFirstVersionIsUpgradedInPlace) {
    const std::string old = folder / "old.db";
    const auto script = [&](const char* sql) { ExecuteScript(OpenConnection(old).get(), sql); };
    script(R"(
        PRAGMA application_id = 1263946818;
        PRAGMA user_version = 1;
        CREATE TABLE agent (key TEXT PRIMARY KEY);
        INSERT INTO agent VALUES ('K5');)");
    for (const char* id : {"1", "2"}) {
        Store upgraded = OpenStore(old);
        EXPECT_TRUE(AgentExists(upgraded, "K5"));
        EXPECT_EQ(AddRequest(upgraded, {"K5", "T", "", {}}), id);
    }
    script("PRAGMA user_version = 3;");
    EXPECT_THROW(OpenStore(old), DatabaseError);
}

}  // namespace

}  // namespace kv::lab::test

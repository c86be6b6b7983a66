// Requests to agents: ordered by kvlab, fetched and reported over real HTTP.
#include <cstdlib>
#include <gmock/gmock.h>
#include <sstream>

#include "foundation/registry_store.h"
#include "lab/record_text.h"
#include "lab/requests.h"
#include "lab/server.h"
#include "platform/backend.h"
#include "tests/lab/lab_helpers.h"

namespace kv::lab::test {

namespace {

using ::testing::HasSubstr;

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

    void MakeRegistry(const std::string& key) const {
        setenv("KVAGENT_STATE_DIR", (folder / key).c_str(), 1);
        platform::InstallBackend();
        ASSERT_EQ(SetOCAgentKey(std::u16string(key.begin(), key.end())), 0U);
    }

    Store store = OpenStore(database);
    LabServer server{ServerOptions{database, "127.0.0.1", 0, "", "", 0, {}}};
    httplib::Client client{"127.0.0.1", server.port()};
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
    struct Row {
        const char* title;
        const char* steps;  // a kind to add, a list, or a report and the place of its request among the row's
        const char* states;
    };
    const Row rows[] = {
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
    for (const Row& row : rows) {
        SCOPED_TRACE(row.title);
        ExecuteScript(store.connection.get(), "DELETE FROM request");
        std::vector<std::string> ids;
        std::istringstream steps(row.steps);
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
        EXPECT_EQ(States(), row.states);
    }
}

TEST_F(Requests, TheListHoldsWhatWasAskedForInOrder) {
    MakeRegistry("K1");
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
                ::testing::MatchesRegex("1\tK1\t2\tB\tdone\t.*Z\t.*Z\t.*Z\t1\t.*\n2\tK1\t3\tA\tanswered\t.*\\{\\}\n"));
    EXPECT_THAT(Get("/"), HasSubstr("<span class=good>answered</span>"));

    setenv("KVAGENT_STATE_DIR", (folder / "absent").c_str(), 1);
    EXPECT_EQ(RunOnDatabase("request add --agent K1 --type D").ExitCode(), 3) << "no registry";
    EXPECT_EQ(RunOnDatabase("request add --agent K1 --type D --state " + (folder / "K1").string()).ExitCode(), 0);
    MakeRegistry("K3");
    EXPECT_EQ(RunOnDatabase("request add --agent K1 --type D").ExitCode(), 1) << "another agent's";
    EXPECT_THAT(Errors(), HasSubstr("--no-flag"));
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

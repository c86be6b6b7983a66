// The server's HTTP: what strangers and slow senders do to it, and what it does with many of them.
#include <array>
#include <future>
#include <gmock/gmock.h>

#include "lab/server/http_daemon.h"
#include "tests/lab/lab_helpers.h"
#include "tests/support/linux/shell.h"
#include "tests/support/loopback.h"

namespace kv::lab::test {

namespace {

using ::testing::HasSubstr;
using ::testing::StartsWith;

/// A connection of a stranger, who sends what he likes.
class Stranger {
  public:
    explicit Stranger(int port, std::string_view bytes = "") : socket_(kv::test::ConnectToLoopback(port)) {
        Send(bytes);
    }
    ~Stranger() { kv::test::CloseSocket(socket_); }
    Stranger(Stranger&& other) noexcept : socket_(std::exchange(other.socket_, kv::test::noSocket)) {}

    void Send(std::string_view bytes) const { kv::test::SendText(socket_, bytes); }

    /// What arrives until the connection ends, or until a text is there.
    std::string Read(const std::string& until = "") const {
        std::string text;
        std::array<char, 4096> part;
        while (until.empty() || text.find(until) == std::string::npos) {
            const std::size_t size = kv::test::ReceiveBytes(socket_, part.data(), part.size());
            if (size == 0) break;
            text.append(part.data(), size);
        }
        return text;
    }

  private:
    kv::test::Socket socket_;
};

constexpr const char* uploadHead = "POST /servlets/FileCollector?AGENTKEY=K1&FILENAME=a.zip HTTP/1.1\r\nHost: x\r\n";

class Strangers : public Lab {
  protected:
    std::string Ask(const std::string& bytes) const { return Stranger(server->port(), bytes).Read(); }
    int Status() { return client.Get("/fragment")->status; }

    std::string zip = MakeArchive({{"a.txt", WideBytes("1")}});
};

TEST_F(Strangers, GetAnAnswerOrAnEnd) {
    const std::string close = " HTTP/1.1\r\nHost: x\r\nConnection: close\r\n\r\n";
    const std::string waiting =
        std::string(uploadHead) + "Content-Length: 0\r\nConnection: close\r\nExpect: 100-continue\r\n\r\n";
    const std::string chunked = std::string(uploadHead) + "Connection: close\r\nTransfer-Encoding: chunked\r\n\r\n";
    const std::tuple<const char*, std::string, const char*> rows[] = {
        {"another method", "DELETE /" + close, "HTTP/1.1 405 "},
        {"HEAD of a servlet", "HEAD /servlets/DataAgentHandlerServlet?agentKey=K1" + close, "HTTP/1.1 405 "},
        {"an unknown path", "GET /nothing" + close, "HTTP/1.1 404 "},
        {"an escaped NUL", "GET /fragment%00x" + close, "HTTP/1.1 404 "},
        {"a long path", "GET /" + std::string(100000, 'a') + close, "HTTP/1.1 414 "},
        {"a large head", "GET / HTTP/1.1\r\nX: " + std::string(100000, 'a') + "\r\n\r\n", "HTTP/1.1 431 "},
        {"two of a parameter", "GET /servlets/RegisterAgent?agentKey=K1&agentKey=K2" + close, "HTTP/1.1 200 "},
        {"chunks", chunked + "2\r\nno\r\n5\r\n zip!\r\n0\r\n\r\n", "HTTP/1.1 400 "},
        {"a broken chunk", chunked + "zz\r\n\r\n", "HTTP/1.1 400 "},
        {"a request that waits for a word", waiting, "HTTP/1.1 "},
        {"no HTTP", std::string("\x16\x03\x01\0\0\r\n\r\n", 9), ""},
    };
    for (const auto& [title, bytes, start] : rows) EXPECT_THAT(Ask(bytes), StartsWith(start)) << title;
    EXPECT_THAT(Ask("HEAD /" + close), testing::EndsWith("\r\n\r\n")) << "without a body";
    const std::string next = "GET /nothing HTTP/1.1\r\nHost: x\r\n\r\n";
    const std::string answers = Ask(next + next + "GET /" + close);
    EXPECT_LT(answers.find("404"), answers.rfind("404")) << "one after the other";
    EXPECT_EQ(Agents(store).front().details.key, "K1");
    EXPECT_EQ(Status(), 200);
}

TEST_F(Strangers, SeeThatABodyIsTooLarge) {
    const std::string part(std::size_t{1} << 20, 'x');
    std::size_t left = (maxBodyBytes >> 20) + 1;
    client.set_read_timeout(std::chrono::minutes(5));
    client.set_write_timeout(std::chrono::minutes(5));
    const httplib::Result answer = client.Post(
        "/servlets/FileCollector?AGENTKEY=K1&FILENAME=large", left << 20,
        [&](std::size_t, std::size_t, httplib::DataSink& sink) {
            return left-- > 0 && sink.write(part.data(), part.size());
        },
        "application/octet-stream");
    ASSERT_TRUE(answer) << to_string(answer.error());
    EXPECT_EQ(answer->status, 413);
    EXPECT_EQ(LatestRefusals(store, 9).size(), 1U);
}

TEST_F(Strangers, HoldNobodyUp) {
    std::vector<Stranger> strangers;
    for (int count = 0; count < 700; ++count) {
        strangers.emplace_back(server->port());
        strangers.emplace_back(server->port(), "GET / HT");
        strangers.emplace_back(server->port(), std::string(uploadHead) + "Content-Length: 200000000\r\n\r\nPK");
    }
    EXPECT_EQ(Upload(client, "AGENTKEY=K2&FILENAME=b.zip", zip)->status, 200);
    for (std::size_t half = 1; half < strangers.size(); half += 3) strangers[half].Send("TP/1.1\r\nHost: x\r\n\r\n");
    for (std::size_t half = 1; half < strangers.size(); half += 3)
        EXPECT_THAT(strangers[half].Read("</html>"), StartsWith("HTTP/1.1 200 "));
    strangers.clear();
    ASSERT_TRUE(Happens([this] {
        const std::vector<Refusal> latest = LatestRefusals(store, 1);
        return !latest.empty() && latest[0].times >= 700 && latest[0].reason == "the body did not arrive whole";
    }));
}

TEST_F(Strangers, AreAnsweredAsTheFaultSays) {
    const std::string request = "GET /servlets/RegisterAgent?agentKey=K1 HTTP/1.1\r\nHost: x\r\n\r\n";
    AddFault(store, {0, "*", FaultKind::status, 503, 1});
    EXPECT_THAT(Stranger(server->port(), request).Read("set: "), StartsWith("HTTP/1.1 503 "));
    AddFault(store, {0, "*", FaultKind::drop, 0, 1});
    EXPECT_EQ(Ask(request), "");
    AddFault(store, {0, "RegisterAgent", FaultKind::cut, 0, 1});
    EXPECT_THAT(Ask(request), HasSubstr("AgentKey: K1\r\n"));

    AddFault(store, {0, "*", FaultKind::delay, 3600000, 40});
    std::vector<Stranger> delayed;
    for (int count = 0; count < 40; ++count) delayed.emplace_back(server->port(), request);
    ASSERT_TRUE(Happens([this] { return Faults(store).empty(); }));
    EXPECT_EQ(client.Get("/servlets/RegisterAgent?agentKey=K1")->status, 200) << "forty wait without a worker";
    delayed.pop_back();  // goes away
    server.reset();
    for (const Stranger& stranger : delayed) EXPECT_EQ(stranger.Read(), "") << "a delay ends with the server";
}

TEST_F(Strangers, TalkToAServerWithACertificate) {
    const std::string key = folder / "key.pem";
    const std::string certificate = folder / "certificate.pem";
    kv::test::RunShell("openssl req -x509 -newkey rsa:2048 -nodes -subj /CN=localhost -keyout '" + key + "' -out '" +
                       certificate + "' 2>/dev/null");
    const LabServer secure({database, "127.0.0.1", 0, certificate, key, 0, {}});
    httplib::Client sender("https://127.0.0.1:" + std::to_string(secure.port()));
    sender.enable_server_certificate_verification(false);
    const httplib::Result whole = Upload(sender, "AGENTKEY=K1&FILENAME=a.zip", zip);
    ASSERT_TRUE(whole) << to_string(whole.error());
    AddFault(store, {0, "*", FaultKind::drop, 0, 1});
    EXPECT_FALSE(Upload(sender, "AGENTKEY=K1&FILENAME=b.zip", zip));
    AddFault(store, {0, "*", FaultKind::cut, 0, 1});
    EXPECT_FALSE(Upload(sender, "AGENTKEY=K1&FILENAME=b.zip", zip)) << "stored, and the agent cannot know";
    EXPECT_EQ(CountAll(store).zips, 2);
    EXPECT_THROW(LabServer({database, "127.0.0.1", secure.port(), "", "", 0, {}}), ServerError) << "the port is taken";
}

TEST_F(Strangers, SeeADatabaseThatFailsAndOneThatIsBack) {
    Execute(*store.database, "ALTER TABLE agent RENAME TO elsewhere");
    const httplib::Result failed = client.Get("/servlets/RegisterAgent?agentKey=K1");
    EXPECT_EQ(failed->status, 500);
    EXPECT_EQ(failed->body, "the server failed; its standard error tells why\n");
    Execute(*store.database, "ALTER TABLE elsewhere RENAME TO agent");
    EXPECT_EQ(client.Get("/servlets/RegisterAgent?agentKey=K1")->status, 200);
}

TEST(OnPostgres, AServerThatWasAwayIsUsedAgain) {
    const std::string database = NewPostgresPlace();
    Store store = OpenStore(database);
    const LabServer server({database, "127.0.0.1", 0, "", "", 0, {}});
    httplib::Client client("127.0.0.1", server.port());
    const auto failures = [&] {
        int count = 0;
        for (int request = 0; request < 30; ++request) count += client.Get("/")->status == 200 ? 0 : 1;
        return count;
    };
    EXPECT_EQ(failures(), 0);
    Statement ended(*store.database,
                    "SELECT pg_terminate_backend(pid) FROM pg_stat_activity WHERE pid <> pg_backend_pid()");
    while (ended.Step()) continue;
    EXPECT_EQ(failures(), 1) << "then all workers connect again";
}

TEST_F(Strangers, FindNothingThatIsTooOld) {
    const std::string old = R"({ "DATACOLLECTTIME": "1600000000" })";
    Upload(client, "AGENTKEY=K1&FILENAME=a.zip", MakeArchive({{"old", WideBytes(old)}, {"new", WideBytes("{}")}}));
    constexpr std::int64_t day = 86400000;
    const LabServer pruning({database, "127.0.0.1", 0, "", "", 0, {}, day});
    ASSERT_TRUE(Happens([this] { return CountAll(store).records < 2; }));
    EXPECT_THAT(StoredRecords(store), testing::ElementsAre("new {}"));
}

TEST(HttpDaemon, HasBodiesWaitForRoom) {
    constexpr std::size_t mebibyte = std::size_t{1} << 20;
    std::atomic<int> whole = 0;
    HttpDaemon daemon({"127.0.0.1", 0, "", "", 2, mebibyte}, [&](std::size_t, const HttpRequest& request) {
        whole += request.body == std::string(3 * mebibyte, 'x') ? 1 : 0;
        return HttpOutcome();
    });
    std::vector<std::future<int>> senders;
    for (int count = 0; count < 8; ++count)
        senders.push_back(std::async(std::launch::async, [&] {
            httplib::Client sender("127.0.0.1", daemon.port());
            const httplib::Result answer = Upload(sender, "", std::string(3 * mebibyte, 'x'));
            return answer ? answer->status : 0;
        }));
    for (std::future<int>& sender : senders) EXPECT_EQ(sender.get(), 200);
    EXPECT_EQ(whole, 8);
}

}  // namespace

}  // namespace kv::lab::test

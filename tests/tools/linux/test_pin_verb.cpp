// kvagentctl pin, on a registry of the test's own and servers with certificates of all kinds.
#include <csignal>

#include "tests/http/http_peers.h"
#include "tests/http/linux/tls_peers.h"
#include "tests/tools/agent_tool_fixture.h"

namespace kv::test {

namespace {

class PinVerb : public AgentToolTest {
  protected:
    PinVerb() { std::signal(SIGPIPE, SIG_IGN); }
};

TEST_F(PinVerb, WarnsOfAnotherKeyAtAnotherAddress) {
    const TlsServer server(Issue(NewKey(), {}));
    const Identity other = Issue(NewKey(), {});
    const TlsServer standIn(other);
    const RawServer proxy([&](Socket connection, const std::string& request) {
        const Socket peer = ConnectToLoopback(request.starts_with("CONNECT 127.0.0.9:") ? standIn.port : server.port);
        SendText(connection, "HTTP/1.1 200 Connection established\r\n\r\n");
        Relay(connection, peer);
        CloseSocket(peer);
    });
    ASSERT_EQ(Run({"setup", "--server", "192.0.2.1:8443", "--second-ip", "127.0.0.9"}).exitCode, 0);
    Registry({"set", agentKey, "ProxyEnabled", "yes"});
    Registry({"set", agentKey, "ProxyServerName", "127.0.0.1:" + std::to_string(proxy.port)});
    EXPECT_THAT(Run({"pin", "--yes"}).errors,
                HasSubstr("127.0.0.9:8443 shows another key (" + KeyPin(other) + "), and the agent will send nothing"));
    EXPECT_EQ(Run({"pin", "--add", "--yes", "--address", "127.0.0.9:8443"}).exitCode, 0);
    EXPECT_EQ(Run({"pin", "--add", "--yes"}).errors, "") << "both are stored";
}

TEST_F(PinVerb, ShowsTheCertificateAndStoresItsKey) {
    EXPECT_EQ(Run({"pin"}).exitCode, 3) << "no server is set";
    const Identity first = Issue(NewKey(), {});
    const Identity second = Issue(NewKey(), {"next", "IP:127.0.0.1", -3, -2});
    TlsServer server(first);
    TlsServer next(second);
    const std::string nextAt = "127.0.0.1:" + std::to_string(next.port);
    ASSERT_EQ(Run({"setup", "--server", "127.0.0.1:" + std::to_string(server.port)}).exitCode, 0);
    const std::string one = KeyPin(first), two = KeyPin(second), both = one + ";" + two;
    const std::tuple<const char*, Words, int, std::string, std::string> rows[] = {
        {"nobody to ask", {"pin"}, 2, "this needs --yes", ""},
        {"dry", {"pin", "--dry-run", "--yes"}, 0, "subject = CN=cs", ""},
        {"JSON asks nothing", {"pin", "--json"}, 0, "\"stored\": false", ""},
        {"nobody there", {"pin", "--yes", "--address", "127.0.0.1:1"}, 1, "Connection refused", ""},
        {"no port number", {"pin", "--address", "cs:99999"}, 2, "a port number from 1 to 65535", ""},
        {"yes", {"pin", "--yes"}, 0, "at its next start: systemctl restart", one},
        {"again", {"pin", "--yes"}, 0, "is stored already; nothing was changed", one},
        {"one more", {"pin", "--json", "--add", "--yes", "--address", nextAt}, 0, "\"stored\": true", both},
        {"alone", {"pin", "--yes", "--address", nextAt}, 0, "Before: " + both + " (--add would", two},
        {"but set is", {"pin", "--address", nextAt}, 0, " shows another key (" + one + "), and the", two},
        {"dry again", {"pin", "--dry-run"}, 0, "Stored is " + two + "; this key would take its place", two},
        {"another", {"pin", "--yes"}, 0, "is the stored key = no: its key is not the pinned one", one},
    };
    for (const auto& [title, words, exitCode, told, storedThen] : rows) {
        SCOPED_TRACE(title);
        const Outcome outcome = Run(words);
        EXPECT_EQ(outcome.exitCode, exitCode) << outcome.errors;
        EXPECT_THAT(outcome.output + outcome.errors, HasSubstr(told));
        EXPECT_EQ(Get(serverKey, "KVServerPinnedKey"), storedThen + (storedThen.empty() ? "" : "\n"));
    }
    EXPECT_EQ(server.decrypted + next.decrypted, 0u) << "no request goes out";
    Registry({"set", "--force", serverKey, "KVServerPinnedKey", "abc"});
    EXPECT_THAT(Run({"pin", "--dry-run"}).output, HasSubstr("= no: stored is 'abc', which is not a key\n"));
    ASSERT_EQ(Run({"setup", "--protocol", "http"}).exitCode, 0);
    Expect({"pin", "--yes"}, 1, "", "KVServerProtocol is not https, so the server shows no certificate");
    Write(Utf8(folder / "state" / "registry.db"), std::string(4096, 'x'));
    EXPECT_THAT(Run({"pin", "--yes"}).errors, HasSubstr("the registry cannot be read: "));
    EXPECT_THAT(Run({"check", "--online"}).output, HasSubstr("error: server: is not tried, because there are no se"));
}

}  // namespace

}  // namespace kv::test

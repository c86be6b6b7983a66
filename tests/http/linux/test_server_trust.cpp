// What the settings ask of the server's certificate: whether a request goes out, and what the log says.
#include <csignal>
#include <gmock/gmock.h>

#include "agent/server_trust.h"
#include "foundation/agent_health.h"
#include "foundation/registry_store.h"
#include "platform/http.h"
#include "platform/utf.h"
#include "tests/http/http_peers.h"
#include "tests/http/linux/tls_peers.h"

namespace kv::test {

namespace {

using platform::RegistryType;

class ServerTrustTest : public HttpTest {
  protected:
    ServerTrustTest() {
        std::signal(SIGPIPE, SIG_IGN);  // the peers write to whoever has hung up
        agentState.gv_httpsEnabled = 1;
        Write(folder / "ca.pem", PemText(authority));
        Write(folder / "empty.pem", "");
        Write(folder / "long.pem", std::string(1024 * 1024 + 1, ' '));
        Write(folder / "cut.pem", PemText(authority).substr(0, 200));
    }

    std::u16string Path(const char* name) const { return platform::WideFromUtf8((folder / name).string()); }

    static std::u16string Pin(const Identity& identity) { return platform::WideFromUtf8(KeyPin(identity)); }

    struct Setting {
        std::u16string name, data;
        RegistryType type = RegistryType::text;
    };
    /// Has the agent start with these settings of trust and no others.
    static void Set(const std::vector<Setting>& settings) {
        platform::Registry().RegDeleteTreeW(platform::RootKey::localMachine, serverInfoKeyPath);
        for (const auto& [name, data, type] : settings)
            writeValue(platform::RootKey::localMachine, serverInfoKeyPath, name, data, type);
        getServerTrust();
    }

    const Key key = NewKey();
    const Identity authority = Issue(NewKey(), {"An authority", ""});
    const Identity other = Issue(NewKey(), {"another"});
    const Identity issued = Issue(key, {}, &authority);
    const Identity faulty = Issue(key, {"elsewhere", "IP:192.0.2.1", -3, -2});  // expired, and signed by itself
};

TEST_F(ServerTrustTest, NothingGoesOutWhenASettingCannotBeUsed) {
    const std::u16string pin = Pin(issued);
    const std::pair<Setting, const char*> rows[] = {
        {{u"KVServerPinnedKey", pin.substr(8)}, "KVServerPinnedKey has ["},
        {{u"KVServerPinnedKey", pin + u";sha256//AAAA"}, "KVServerPinnedKey has [sha256//AAAA]"},
        {{u"KVServerPinnedKey", u"--"}, "KVServerPinnedKey is empty"},
        {{u"KVServerPinnedKey", u"1", RegistryType::dword}, "KVServerPinnedKey is not a text"},
        {{u"KVServerCAFile", Path("absent.pem")}, "absent.pem, which cannot be read: The system cannot find the file"},
        {{u"KVServerCAFile", Path("empty.pem")}, "empty.pem, which has no certificate in PEM form"},
        {{u"KVServerCAFile", Path("long.pem")}, "long.pem, which is longer than 1 MB"},
        {{u"KVServerCAFile", Path("cut.pem")}, "cut.pem, which has a certificate that cannot be read"},
        {{u"KVServerCAFile", u"ca.pem"}, "KVServerCAFile names ca.pem, which is not a whole path"},
        {{u"KVServerVerify", u"true"}, "KVServerVerify is [true], neither yes nor no"},
    };
    TlsServer server(issued);
    for (const auto& [setting, logged] : rows) {
        SCOPED_TRACE(logged);
        const std::size_t before = LogText().size();
        Set({setting});
        EXPECT_EQ(Get(server.port, u"/x"), 12175u);
        EXPECT_NE(ReadLastEvents().failure.find("/x at 127.0.0.1"), std::string::npos);
        EXPECT_NE(ReadLastEvents().failure.find(logged), std::string::npos) << ReadLastEvents().failure;
        EXPECT_EQ(TimesLogged(logged, before), 2) << "at the start and at the request" << LogText().substr(before);
    }
    TestServer plain;
    agentState.gv_httpsEnabled = 0;
    Set({{u"KVServerPinnedKey", pin}});
    EXPECT_EQ(Get(plain.port, u"/echo?value=x"), 12175u);
    EXPECT_TRUE(Logged("KVServerProtocol is http, which has no certificate"));
    Set({});
    EXPECT_EQ(Get(plain.port, u"/echo?value=y"), 0u);
    EXPECT_EQ(plain.value, "y");
    EXPECT_TRUE(server.HasServed(0));
}

TEST_F(ServerTrustTest, HoldsOnEveryHopAndThroughAProxy) {
    Set({{u"KVServerPinnedKey", Pin(issued)}});
    TlsServer stranger(other);
    TlsServer renamed(faulty);  // with the pinned key
    const auto leadsTo = [](const TlsServer& server) {
        return "HTTP/1.1 307 Go\r\nLocation: https://127.0.0.1:" + std::to_string(server.port) +
               "/\r\nContent-Length: 0\r\n\r\n";
    };
    TlsServer toStranger(issued, leadsTo(stranger));
    TlsServer toRenamed(issued, leadsTo(renamed));
    EXPECT_EQ(Get(toStranger.port, u"/x"), 12175u);
    EXPECT_EQ(Get(toRenamed.port, u"/x"), 0u);
    EXPECT_GT(renamed.decrypted, 0u);
    // Redirects do not push out what the agent's own server has shown.
    auto& known = agentState.gv_certificates;
    known.clear();
    for (int server = 0; server < 100; ++server) known["stranger:" + std::to_string(server)] = "";
    agentState.gv_ServerIPAddress = u"127.0.0.1";
    EXPECT_EQ(Get(toRenamed.port, u"/x"), 0u);
    EXPECT_EQ(known.size(), 100u);
    EXPECT_TRUE(known.contains("127.0.0.1:" + std::to_string(toRenamed.port)));
    RawServer proxy(ProxyThatWants(basicCredentials));
    UseProxy(At(proxy.port), u"");
    EXPECT_EQ(Get(stranger.port, u"/x"), 12175u);
    EXPECT_EQ(Get(renamed.port, u"/x"), 0u);
    EXPECT_EQ(proxy.requests.size(), 2u);
    EXPECT_TRUE(stranger.HasServed(2));
    EXPECT_EQ(stranger.decrypted, 0u);
    EXPECT_TRUE(Logged(" through proxy 127.0.0.1:" + std::to_string(proxy.port) +
                       ": the certificate of 127.0.0.1:" + std::to_string(stranger.port) + " is refused"));
    // A dot that makes a name complete is no part of the name in a certificate.
    TlsServer named(Issue(key, {"cs", "DNS:localhost"}, &authority));
    Set({{u"KVServerCAFile", Path("ca.pem")}});
    agentState.gv_LastAccessName.Publish(u"localhost.");
    EXPECT_EQ(Get(named.port, u"/x"), 0u);
}

TEST_F(ServerTrustTest, TellsOfACertificateWhenItChanges) {
    auto server = std::make_unique<TlsServer>(faulty);
    const int port = server->port;
    for (int request = 0; request < 3; ++request) EXPECT_EQ(Get(port, u"/x"), 0u);
    const std::string name = "The server 127.0.0.1:" + std::to_string(port) + " shows ";
    EXPECT_EQ(TimesLogged(name), 1);
    EXPECT_TRUE(Logged(name + "this certificate: subject [CN=elsewhere], issuer [CN=elsewhere], SHA-256 "));
    agentState.gv_certificates.begin()->second = "another";
    EXPECT_EQ(Get(port, u"/x"), 0u);
    EXPECT_EQ(TimesLogged(name), 2);
    EXPECT_TRUE(Logged(name + "another certificate than before: subject [CN=elsewhere]"));
    server.reset();
    EXPECT_EQ(Get(port, u"/x"), 12029u);
    EXPECT_TRUE(Logged("InternetGetRequestEx : connect to 127.0.0.1:" + std::to_string(port) +
                       " through no proxy: Connection refused"));
    UseProxy(u"user:word@" + At(port), u"");
    EXPECT_NE(Get(port, u"/x"), 0u);
    EXPECT_TRUE(Logged(" through proxy 127.0.0.1:" + std::to_string(port) + ": "));
    EXPECT_FALSE(Logged("word@"));
    UseProxy(u"", u"");
    agentState.gv_proxyEnabled = u"NO";
    agentState.gv_LastAccessName.Publish(u"https://cs");
    EXPECT_EQ(Get(443, u"/x"), 12005u);
    EXPECT_TRUE(Logged(" : connect to https://cs:443 through no proxy: "));
    agentState.gv_LastAccessName.Publish(u"127.0.0.1");
    agentState.gv_httpsEnabled = 0;
    const std::size_t before = LogText().size();
    RawServer cut(Answers("HTTP/1.1 200 OK\r\nContent-Length: 9\r\n\r\nab"));
    OptionalText response;
    EXPECT_EQ(Get(cut.port, u"/x", &response), 0u);
    EXPECT_EQ(TimesLogged(" : connect to 127.0.0.1:" + std::to_string(cut.port), before), 1);
}

TEST_F(ServerTrustTest, AProxyThatDoesNotLeadOnGetsNoRecord) {
    Set({{u"KVServerCAFile", Path("ca.pem")}});
    std::string got;
    {
        RawServer refuses([&got](Socket connection, const std::string& request) {
            SendText(connection, "HTTP/1.1 502 Bad Gateway\r\nConnection: close\r\nContent-Length: 0\r\n\r\n");
            got += request;
            for (char c; ReceiveBytes(connection, &c, 1) == 1;) got += c;
        });
        UseProxy(At(refuses.port), u"");
        EXPECT_EQ(Post(1, u"/x", "a record", 8), 13u);
    }
    EXPECT_THAT(got, testing::StartsWith("CONNECT 127.0.0.1:1 "));
    EXPECT_THAT(got, testing::Not(testing::HasSubstr("record")));
}

}  // namespace

}  // namespace kv::test

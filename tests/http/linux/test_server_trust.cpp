// What the settings ask of the server's certificate: whether a request goes out, and what the log says.
#include <csignal>

#include "agent/server_trust.h"
#include "foundation/registry_store.h"
#include "http/server_certificate.h"
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
        Write(folder / "ca.pem", "An authority:\n" + PemText(other) + PemText(authority));
        Write(folder / "other.pem", PemText(other));
        Write(folder / "empty.pem", "");
        Write(folder / "cut.pem", PemText(authority).substr(0, 200));
        Write(folder / "bent.pem", "-----BEGIN CERTIFICATE-----\nAAAA\n-----END CERTIFICATE-----\n");
    }

    std::u16string Path(const char* name) const { return platform::WideFromUtf8((folder / name).string()); }

    static std::u16string Pin(const Identity& identity) {
        unsigned char* der = nullptr;
        const int size = i2d_X509(identity.certificate.get(), &der);
        platform::HttpCertificate certificate;
        EXPECT_EQ(platform::Http().ReadCertificate({reinterpret_cast<char*>(der), static_cast<std::size_t>(size)},
                                                   certificate),
                  0u);
        OPENSSL_free(der);
        return platform::WideFromUtf8(certificate.keyPin);
    }

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
    const Identity other = Issue(NewKey(), {"An authority", ""});  // of the same name
    const Identity issued = Issue(key, {}, &authority);
    const Identity faulty = Issue(key, {"elsewhere", "192.0.2.1", -3, -2});  // expired, and signed by itself
};

TEST_F(ServerTrustTest, NothingGoesOutToAServerThatIsNotTrusted) {
    const Identity reissued = Issue(key, {}, &other);
    const Identity rekeyed = Issue(NewKey(), {}, &authority);
    const Identity expired = Issue(key, {"cs", "127.0.0.1", -3, -2}, &authority);
    const Identity early = Issue(key, {"cs", "127.0.0.1", 2, 3}, &authority);
    const Identity elsewhere = Issue(key, {"cs", "192.0.2.1"}, &authority);
    const Setting pin{u"KVServerPinnedKey", Pin(issued)};
    const Setting pins{u"KVServerPinnedKey", Pin(authority) + u" ; " + Pin(issued) + u";"};
    const Setting file{u"KVServerCAFile", Path("ca.pem")};
    const Setting otherFile{u"KVServerCAFile", Path("other.pem")};
    const Setting verify{u"KVServerVerify", u"YES"};
    const struct {
        const char* title;
        const Identity& shown;
        std::vector<Setting> settings;
        const char* logged;
        bool goesOut;
    } rows[] = {
        {"nothing is asked", faulty, {}, "; not verified\n", true},
        {"verify is no", faulty, {{u"KVServerVerify", u"No"}}, "; not verified\n", true},
        {"the pinned key in a faulty certificate", faulty, {pin}, "; verified by its pinned key\n", true},
        {"one of two pinned keys, issued again", reissued, {pins}, "; verified by its pinned key\n", true},
        {"another key, from the right authority",
         rekeyed,
         {pin},
         "its key is not the pinned one. Expected: key",
         false},
        {"another key than these two", rekeyed, {pins}, "its key is not one of the pinned ones.", false},
        {"from an authority of the file", issued, {file}, "; verified by the CA file\n", true},
        {"expired", expired, {file}, "certificate has expired", false},
        {"not valid yet", early, {file}, "certificate is not yet valid", false},
        {"for another address", elsewhere, {file}, "IP address mismatch", false},
        {"signed by itself", Issue(key, {}), {file}, "self-signed certificate", false},
        {"from another authority", issued, {otherFile}, "Expected: issued by an authority of /", false},
        {"pinned, and from another authority", issued, {pin, otherFile}, "unable to get local issuer", false},
        {"pinned and from the authority", issued, {pin, file}, "; verified by its pinned key and the CA file\n", true},
        {"unknown to the system", issued, {verify}, "unable to get local issuer certificate", false},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.title);
        Set(row.settings);
        const std::size_t before = LogText().size();
        TlsServer server(row.shown);
        const std::string body = "a record";
        EXPECT_EQ(Get(server.port, u"/x"), row.goesOut ? 0u : 12175u);
        EXPECT_EQ(Post(server.port, u"/x", body, body.size()), row.goesOut ? 0u : 12175u);
        while (server.served < 2) std::this_thread::yield();
        EXPECT_EQ(server.decrypted > 0, row.goesOut) << server.decrypted;
        EXPECT_EQ(TimesLogged(row.logged, before), row.goesOut ? 1 : 2) << LogText().substr(before);
        EXPECT_EQ(TimesLogged("and nothing was sent to it", before), row.goesOut ? 0 : 2);
    }
}

TEST_F(ServerTrustTest, NothingGoesOutWhenASettingCannotBeUsed) {
    const std::u16string pin = Pin(issued);
    const struct {
        Setting setting;
        const char* logged;
    } rows[] = {
        {{u"KVServerPinnedKey", pin.substr(8)}, "KVServerPinnedKey has ["},
        {{u"KVServerPinnedKey", pin + u";sha256//AAAA"}, "KVServerPinnedKey has [sha256//AAAA]"},
        {{u"KVServerPinnedKey", u"--"}, "KVServerPinnedKey is empty"},
        {{u"KVServerPinnedKey", u";"}, "KVServerPinnedKey has []"},
        {{u"KVServerPinnedKey", u"1", RegistryType::dword}, "KVServerPinnedKey is not a text"},
        {{u"KVServerCAFile", Path("absent.pem")}, "absent.pem, which cannot be read: The system cannot find the file"},
        {{u"KVServerCAFile", Path("empty.pem")}, "empty.pem, which has no certificate in PEM form"},
        {{u"KVServerCAFile", Path("cut.pem")}, "cut.pem, which has a certificate that cannot be read"},
        {{u"KVServerCAFile", Path("bent.pem")}, "bent.pem, which has a certificate that cannot be read"},
        {{u"KVServerVerify", u"true"}, "KVServerVerify is [true], neither yes nor no"},
        {{u"KVServerVerify", u"1", RegistryType::dword}, "KVServerVerify is not a text"},
    };
    TlsServer server(issued);
    for (const auto& row : rows) {
        SCOPED_TRACE(row.logged);
        const std::size_t before = LogText().size();
        Set({row.setting});
        EXPECT_EQ(Get(server.port, u"/x"), 12175u);
        EXPECT_EQ(TimesLogged(row.logged, before), 2) << "at the start and at the request" << LogText().substr(before);
    }
    TestServer plain;
    agentState.gv_httpsEnabled = 0;
    Set({{u"KVServerPinnedKey", pin}});
    EXPECT_EQ(Get(plain.port, u"/echo?value=x"), 12175u);
    EXPECT_TRUE(Logged("KVServerProtocol is http, which has no certificate"));
    Set({});
    EXPECT_EQ(Get(plain.port, u"/echo?value=y"), 0u);
    EXPECT_EQ(plain.value, "y");
    EXPECT_EQ(server.served, 0);
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
    RawServer proxy(ProxyThatWants(basicCredentials));
    UseProxy(At(proxy.port), u"");
    EXPECT_EQ(Get(stranger.port, u"/x"), 12175u);
    EXPECT_EQ(Get(renamed.port, u"/x"), 0u);
    EXPECT_EQ(proxy.requests.size(), 2u);
    while (stranger.served < 2) std::this_thread::yield();
    EXPECT_EQ(stranger.decrypted, 0u);
    EXPECT_TRUE(Logged(" through proxy 127.0.0.1:" + std::to_string(proxy.port) +
                       ": the certificate of 127.0.0.1:" + std::to_string(stranger.port) + " is refused"));
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
}

TEST_F(ServerTrustTest, ALookSendsNothing) {
    Set({{u"KVServerPinnedKey", Pin(authority)}, {u"KVServerCAFile", Path("ca.pem")}});
    TlsServer server(issued);
    ServerCertificate found;
    std::string reason;
    EXPECT_EQ(FetchServerCertificate(u"127.0.0.1", server.port, found, reason), 0u) << reason;
    while (server.served < 1) std::this_thread::yield();
    EXPECT_EQ(server.decrypted, 0u);
    EXPECT_EQ(found.server, "127.0.0.1:" + std::to_string(server.port));
    EXPECT_EQ(found.certificate.subject, "CN=cs");
    EXPECT_EQ(found.certificate.issuer, "CN=An authority");
    EXPECT_EQ(found.certificate.validUntil - found.certificate.validFrom, 2 * 86400);
    EXPECT_EQ(platform::WideFromUtf8(found.certificate.keyPin), Pin(issued));
    EXPECT_EQ(found.certificate.fingerprint.size(), 32 * 3 - 1u);
    EXPECT_EQ(found.keyProblem, "its key is not the pinned one");
    EXPECT_EQ(found.caFileProblem, "");
    EXPECT_EQ(found.systemProblem, "unable to get local issuer certificate");
    TestServer plain;
    EXPECT_EQ(FetchServerCertificate(u"127.0.0.1", plain.port, found, reason), 12157u);
    EXPECT_NE(reason, "");
}

}  // namespace

}  // namespace kv::test

// Transactions over real connections: what goes over the wire, and what each kind of peer makes of them.
#include <cstdlib>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <map>
#include <memory>
#include <openssl/evp.h>
#include <openssl/x509.h>

#include "foundation/file_utils.h"
#include "platform/http.h"
#include "platform/utf.h"
#include "tests/exchange/http_peers.h"

namespace kv::test {

namespace {

using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

/// Answers the paths of these tests.
struct TestServer : RunningServer {
    explicit TestServer(std::unique_ptr<httplib::Server> made = std::make_unique<httplib::Server>())
        : RunningServer(std::move(made)) {
        server->Get("/echo", [this](const httplib::Request& request, httplib::Response& response) {
            value = request.get_param_value("value");
            response.set_content(Utf16LittleEndianBytes(u"täxt \U0001f600"), "text/plain");
        });
        server->Get("/size", [](const httplib::Request& request, httplib::Response& response) {
            response.set_content(std::string(std::stoul(request.get_param_value("bytes")), 'z'), "x/y");
        });
        server->Get("/hop", [](const httplib::Request& request, httplib::Response& response) {
            response.set_redirect(request.get_param_value("to"));
        });
        server->Post("/post", [this](const httplib::Request& request, httplib::Response& response) {
            value = request.body;
            response.set_content(Utf16LittleEndianBytes(u"thanks"), "text/plain");
        });
    }

    std::string value;  // what the last request carried
};

/// Signed by itself, without a name, and expired an hour ago.
std::unique_ptr<httplib::Server> SecureServer() {
    EVP_PKEY* key = EVP_EC_gen("P-256");
    X509* certificate = X509_new();
    X509_gmtime_adj(X509_getm_notBefore(certificate), -7200);
    X509_gmtime_adj(X509_getm_notAfter(certificate), -3600);
    X509_set_pubkey(certificate, key);
    X509_sign(certificate, key, EVP_sha256());
    auto server = std::make_unique<httplib::SSLServer>(certificate, key);
    X509_free(certificate);
    EVP_PKEY_free(key);
    return server;
}

class HttpTransport : public HttpTest {
  protected:
    HttpTransport() {
        setenv("http_proxy", "http://127.0.0.1:1", 1);  // must never be taken
        setenv("ALL_PROXY", "http://127.0.0.1:1", 1);
    }

    static void UseProxy(int port, std::u16string bypass, std::u16string password = u"pass") {
        agentState.gv_proxyEnabled = u"YES";
        agentState.gv_proxyServerName =
            u"http=127.0.0.1:" + DecimalText(port) + u";https=http://127.0.0.1:" + DecimalText(port);
        agentState.gv_proxyExceptionAddr = std::move(bypass);
        agentState.gv_proxyUserName = u"üser";
        agentState.gv_proxyPassword = std::move(password);
    }

    /// "üser:pass", as the proxy gets it.
    const std::string credentials = "Basic w7xzZXI6cGFzcw==";
};

TEST_F(HttpTransport, SaysExactlyWhatItShouldOnTheWire) {
    RawServer server(Says("HTTP/1.1 200 OK\r\nContent-Length: 0\r\n\r\n"));
    const std::string host = "Host: 127.0.0.1:" + std::to_string(server.port) + "\r\n";
    EXPECT_EQ(Get(server.port, u"\\a\\b?c=5% d%20e"), 0u);
    EXPECT_EQ(Post(server.port, u"/p", "12345", 5), 0u);
    ASSERT_EQ(server.requests.size(), 2u);
    EXPECT_EQ(server.requests[0], "GET /a/b?c=5%25%20d%20e HTTP/1.1\r\n" + host +
                                      "User-Agent: TallowmereOnCallAgent\r\nAccept: */*\r\nCache-Control: no-cache\r\n"
                                      "Pragma: no-cache\r\nConnection: Closed\r\n\r\n");
    EXPECT_THAT(server.requests[1], StartsWith("POST /p HTTP/1.1\r\n"));
    EXPECT_THAT(server.requests[1], HasSubstr("Content-Length: 5\r\n"));
    for (const char* unwanted : {"Accept:", "Expect:", "Content-Type:", "Accept-Encoding:"}) {
        EXPECT_THAT(server.requests[1], Not(HasSubstr(unwanted)));
    }
}

TEST_F(HttpTransport, TheServerDecodesTheTextThatWasGiven) {
    TestServer server;
    const std::map<std::u16string, std::string> rows = {
        {u"Zürich \u6771\u4eac \U0001f600", "Zürich 東京 😀"},
        {u"a%20b%26c 5%zz", "a b&c 5%zz"},          // an escape stays, other percent signs become one
        {u"\"<>^`{|}#\t\x7f", "\"<>^`{|}#\t\x7f"},  // what a request line cannot carry
        {u"/../a:b@c;d/e[1]!$'()*,~", "/../a:b@c;d/e[1]!$'()*,~"},
        {u"x\xd800y", "x\xef\xbf\xbdy"},  // half a surrogate pair
    };
    for (const auto& [given, decoded] : rows) {
        OptionalText response;
        EXPECT_EQ(Get(server.port, u"/echo?value=" + given, &response), 0u);
        EXPECT_EQ(server.value, decoded);
        EXPECT_EQ(response, u"täxt \U0001f600");
    }
}

TEST_F(HttpTransport, BodiesOfEverySizeArriveWhole) {
    TestServer server;
    for (const std::size_t size : {1u, 50u, 16385u, 3000000u}) {
        SCOPED_TRACE(size);
        std::u16string url = u"/size?bytes=" + DecimalText(static_cast<std::int64_t>(size));
        OptionalText response;
        EXPECT_EQ(Get(server.port, url, &response), 0u);
        EXPECT_EQ(response, std::u16string(size / 2, u'\x7a7a'));
        EXPECT_EQ(InternetDownloadFile({}, 0, url, u"..\\got.bin", true), 0u);
        EXPECT_EQ(Read(bin / ".." / "got.bin"), std::string(size, 'z'));
        const std::string body(size, '\xfe');
        Write(bin / "up.zip", body);
        std::u16string post = u"/post";
        EXPECT_EQ(InternetUploadBinaryFile({}, 0, post, u"up.zip"), 0u);
        EXPECT_EQ(server.value, body);
    }
    OptionalText response;
    EXPECT_EQ(Get(server.port, u"/size?bytes=70000000", &response), 0u);
    EXPECT_TRUE(Logged("InternetGetRequestEx : The answer of the server 127.0.0.1 is cut after 671"));
    EXPECT_LT(response->size(), 33'600'000u);
}

TEST_F(HttpTransport, FollowsRedirectsButNotOutOfASecureConnection) {
    TestServer plain;
    TestServer secure(SecureServer());
    const std::u16string toPlain = u"/hop?to=http://127.0.0.1:" + DecimalText(plain.port) + u"/echo";
    const std::u16string toSecure = u"/hop?to=https://127.0.0.1:" + DecimalText(secure.port) + u"/echo";
    EXPECT_EQ(Get(plain.port, u"/hop?to=echo%3Fvalue%3Dmoved"), 0u);
    EXPECT_EQ(plain.value, "moved");
    EXPECT_EQ(Get(plain.port, toSecure), 12175u);  // the target's certificate was not asked to be tolerated
    RawServer circle(Says("HTTP/1.1 302 Found\r\nLocation: /again\r\nContent-Length: 0\r\n\r\n"));
    EXPECT_EQ(Get(circle.port, u"/"), 12156u);
    EXPECT_EQ(circle.requests.size(), 11u);
    agentState.gv_httpsEnabled = 1;
    EXPECT_EQ(Get(secure.port, toPlain), 13u);
    EXPECT_EQ(Get(secure.port, toSecure), 0u);
}

TEST_F(HttpTransport, NoRedirectLosesAPostOrLeadsAroundAProxy) {
    TestServer server;
    server.server->Get("/post", [](const httplib::Request&, httplib::Response&) {});
    server.server->Post("/moved/(\\d+)", [](const httplib::Request& request, httplib::Response& response) {
        response.set_redirect("/post", std::stoi(request.matches[1]));
    });
    const std::map<int, std::string> arrived = {{301, ""}, {302, ""}, {303, ""}, {307, "zip"}, {308, "zip"}};
    for (const auto& [status, body] : arrived) {
        EXPECT_EQ(Post(server.port, u"/moved/" + DecimalText(status), "zip", 3), body.empty() ? 13u : 0u);
        EXPECT_EQ(server.value, body);
    }
    RawServer proxy(Says("HTTP/1.1 302 Found\r\nLocation: https://elsewhere.invalid/\r\n\r\n"));
    agentState.gv_httpsEnabled = 1;
    UseProxy(proxy.port, u"");
    EXPECT_EQ(Get(server.port, u"/echo"), 13u);
}

TEST_F(HttpTransport, EachFailureHasItsNumber) {
    // The same limit on silence as ever, made short.
    platform::HttpOperations impatient = platform::Http();
    impatient.WinHttpOpenRequest = [real = platform::Http()](auto connection, auto verb, auto url, auto types,
                                                             auto flags, platform::HttpHandle& request) {
        const platform::Error failure = real.WinHttpOpenRequest(connection, verb, url, types, flags, request);
        return failure ? failure : real.WinHttpSetOptionNumber(request, platform::HttpOption::receiveTimeout, 150);
    };
    const platform::ScopedOperations<platform::HttpOperations> scoped(impatient);
    const struct {
        const char* title;
        RawServer::Handler peer;
        platform::Error expected;
        std::string kept = {};  // of a download
    } rows[] = {
        {"hangs up at once", Says(""), 12030},
        {"no HTTP at all", Says("220 mail ready\r\nwho are you?\r\n"), 12152},
        {"half a body", Says("HTTP/1.1 200 OK\r\nContent-Length: 10\r\n\r\n12345"), 12030, "12345"},
        {"falls silent in the body", Says("HTTP/1.1 200 OK\r\nContent-Length: 10\r\n\r\n12345", true), 12002, "12345"},
        {"an encoding nobody asked for", Says("HTTP/1.1 200 OK\r\nContent-Encoding: gzip\r\n\r\nraw"), 0, "raw"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.title);
        RawServer server(row.peer);
        agentState.gv_ServerPort = server.port;
        std::u16string url = u"/x";
        EXPECT_EQ(InternetDownloadFile({}, 0, url, u"part.bin", false), row.expected);
        EXPECT_EQ(Read(bin / "part.bin"), row.kept);
    }
    RawServer cut(Says("HTTP/1.1 200 OK\r\nContent-Length: 10\r\n\r\nabcde"));
    OptionalText response;
    EXPECT_EQ(Get(cut.port, u"/x", &response), 0u);
    EXPECT_EQ(response, u"\u6261\u6463");  // what came is kept, whole characters
    RawServer gone(Says("HTTP/1.1 200 OK\r\nContent-Length: 10\r\n\r\n"));
    EXPECT_EQ(Get(gone.port, u"/x", &response), 12030u) << "no empty answer";
    agentState.gv_httpsEnabled = 1;
    EXPECT_EQ(Get(gone.port, u"/x"), 12157u);
}

TEST_F(HttpTransport, AddressesThatLeadNowhere) {
    const int closedPort = RawServer(Says("")).port;
    for (const auto& [address, expected] : {std::pair{u"127.0.0.1", 12029u},
                                            {u"::1", 12029u},
                                            {u"no-such-host.invalid", 12007u},
                                            {u"127.0.0.1:80", 12005u}}) {
        agentState.gv_LastAccessName.publish(address);
        EXPECT_EQ(Get(closedPort, u"/"), expected) << platform::Utf8FromWide(address);
    }
}

TEST_F(HttpTransport, GoesThroughTheProxyWithItsCredentials) {
    RawServer proxy(Forwards(credentials));
    TestServer plain;
    TestServer secure(SecureServer());
    for (TestServer* server : {&plain, &secure}) {
        SCOPED_TRACE(server == &secure);
        agentState.gv_httpsEnabled = server == &secure;
        UseProxy(proxy.port, u"<local>");
        const std::size_t before = proxy.requests.size();
        EXPECT_EQ(Get(server->port, u"/echo?value=via proxy"), 0u);
        EXPECT_EQ(server->value, "via proxy");
        EXPECT_EQ(Post(server->port, u"/post", "via proxy too", 13), 0u);
        EXPECT_EQ(server->value, "via proxy too");
        EXPECT_EQ(proxy.requests.size(), before + 2);
        UseProxy(proxy.port, u"<local>", u"wrong");
        EXPECT_EQ(Get(server->port, u"/echo"), 407u);
        EXPECT_EQ(Post(server->port, u"/post", "x", 1), 407u);
    }
    EXPECT_THAT(proxy.requests.back(), Not(HasSubstr("Connection: Closed")));  // that header is the server's
    EXPECT_FALSE(Logged("X-Proxy: here"));  // nor are the tunnel's headers the server's
}

TEST_F(HttpTransport, TheBypassListDecidesWhoIsReachedDirectly) {
    RawServer server(Says("HTTP/1.1 200 OK\r\n\r\n"));
    const std::map<std::u16string, bool> rows = {
        {u"", false},
        {u"<local>", false},              // means names without a dot
        {u"10.*; 11.* 127.0.0.1", true},  // any separator
        {u"http://127.*.1", true},        // a pattern, for plain requests
        {u"https://127.*", false},
        {u"27.0.0.1;127.0.0", false},  // the whole name
        {u"127.0.0.1:1", false},
    };
    for (const auto& [list, direct] : rows) {
        UseProxy(1, list);  // where nobody listens
        EXPECT_EQ(Get(server.port, u"/"), direct ? 0u : 12029u) << platform::Utf8FromWide(list);
    }
    UseProxy(1, u"<local>");
    agentState.gv_LastAccessName.publish(u"localHost");
    EXPECT_EQ(Get(server.port, u"/"), 0u);
}

}  // namespace

}  // namespace kv::test

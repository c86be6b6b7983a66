// TLS peers, which need OpenSSL, and behaviour that Wine does not share with Windows: lists of proxies, bypass
// patterns, credentials offered at once, peers that hang up, chunks that are cut.
#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <gmock/gmock.h>
#include <sys/socket.h>
#include <tuple>

#include "foundation/agent_health.h"
#include "platform/http.h"
#include "tests/http/http_peers.h"
#include "tests/http/linux/tls_peers.h"

namespace kv::test {

namespace {

/// Signed by itself, for another name and address, and expired.
std::unique_ptr<httplib::Server> SecureServer() {
    const Identity identity = Issue(NewKey(), {"elsewhere", "IP:192.0.2.1", -3, -2});
    return std::make_unique<httplib::SSLServer>(identity.certificate.get(), identity.key.get());
}

class HttpSecure : public HttpTest {
  protected:
    HttpSecure() {
        setenv("http_proxy", "http://127.0.0.1:1", 1);  // never to be used
        setenv("ALL_PROXY", "http://127.0.0.1:1", 1);
    }

    static std::u16string ProxyList(int port) { return u"http=" + At(port) + u";https=http://" + At(port); }
};

TEST_F(HttpSecure, FollowsNoRedirectFromHttpsToHttp) {
    TestServer plain;
    TestServer secure(SecureServer());
    const std::u16string toPlain = u"/hop?to=http://127.0.0.1:" + DecimalText(plain.port) + u"/echo";
    const std::u16string toSecure = u"/hop?to=https://127.0.0.1:" + DecimalText(secure.port) + u"/echo";
    EXPECT_EQ(Get(plain.port, toSecure), 12175u);  // a plain request tolerates no faulty certificate
    agentState.gv_httpsEnabled = 1;
    EXPECT_EQ(Get(secure.port, toPlain), 13u);
    EXPECT_EQ(Get(secure.port, toSecure), 0u);
    RawServer proxy(Answers("HTTP/1.1 302 Found\r\nLocation: https://elsewhere.invalid/\r\n\r\n"));
    UseProxy(ProxyList(proxy.port), u"");
    EXPECT_EQ(Get(secure.port, u"/echo"), 13u);
}

TEST_F(HttpSecure, SendsItsCredentialsToTheProxyAtOnce) {
    RawServer proxy(ProxyThatWants(basicCredentials));
    TestServer plain;
    TestServer secure(SecureServer());
    int asked = 0;
    for (TestServer* server : {&plain, &secure}) {
        SCOPED_TRACE(server == &secure);
        agentState.gv_httpsEnabled = server == &secure;
        UseProxy(ProxyList(proxy.port), u"<local>");
        const std::size_t before = proxy.requests.size();
        agentHealth.lastContactTime = 0;
        EXPECT_EQ(Get(server->port, u"/echo?value=via proxy"), 0u);
        EXPECT_NE(agentHealth.lastContactTime, 0) << "with the server behind the proxy";
        EXPECT_EQ(server->value, "via proxy");
        EXPECT_EQ(Post(server->port, u"/post", "via proxy too", 13), 0u);
        EXPECT_EQ(server->value, "via proxy too");
        EXPECT_EQ(proxy.requests.size(), before + 2) << "each with credentials";
        UseProxy(ProxyList(proxy.port), u"<local>", u"wrong");
        EXPECT_EQ(Get(server->port, u"/echo"), 407u);
        EXPECT_EQ(Post(server->port, u"/post", "x", 1), 407u);
        EXPECT_EQ(TimesLogged(": the proxy refused the user or the password (HTTP status 407); see Proxy"), asked += 2);
    }
    EXPECT_THAT(proxy.requests.back(),
                testing::Not(testing::HasSubstr("Connection: Closed")));  // a header for the server
    EXPECT_FALSE(Logged("X-Proxy: here"));                                // the tunnel's headers are not the server's
    UseProxy(At(1), u"http://127.*.1");                                   // a pattern for plain requests only
    EXPECT_EQ(Get(secure.port, u"/echo"), 12029u);
    agentState.gv_httpsEnabled = 0;
    EXPECT_EQ(Get(plain.port, u"/echo"), 0u);
    UseProxy(u"::1", u"");  // port 80, where nobody listens
    EXPECT_EQ(Get(plain.port, u"/echo"), 12029u);
}

TEST_F(HttpSecure, AnAnswerOfTheProxyIsNoContactWithTheServer) {
    const std::tuple<int, const char*, bool> rows[] = {
        {1, "403 Forbidden", false}, {1, "502 Bad Gateway", false}, {0, "504 Timeout", false}, {0, "404", true}};
    for (const auto& [secure, status, isOfServer] : rows) {
        RawServer proxy(Answers(std::string("HTTP/1.1 ") + status + "\r\nContent-Length: 0\r\n\r\n"));
        UseProxy(ProxyList(proxy.port), u"");
        agentState.gv_httpsEnabled = secure;
        agentHealth.lastContactTime = 0;
        EXPECT_EQ(Get(1, u"/echo"), 13u);
        EXPECT_EQ(agentHealth.lastContactTime != 0, isOfServer) << status;
        EXPECT_THAT(ReadLastEvents().failure,
                    testing::HasSubstr(secure ? ", by the proxy " : ", by the server or the proxy "));
    }
}

TEST_F(HttpSecure, OnlyARefusalEndsAnUploadEarly) {
    const std::string body(12'000'000, 'z');
    const std::string accepts = "HTTP/1.1 200 OK\r\nContent-Length: ";
    std::size_t got = 0;
    {
        RawServer refuses(AnswersThenReads("HTTP/1.1 413 Too Large\r\n\r\n", got));
        EXPECT_EQ(Post(refuses.port, u"/x", body, body.size()), 13u);
    }
    EXPECT_LT(got, body.size());
    {
        RawServer wordy(AnswersThenReads(accepts + "600000\r\n\r\n" + std::string(600'000, 'y'), got));
        EXPECT_EQ(Post(wordy.port, u"/x", body, body.size()), 12030u) << "more than the client holds back";
    }
    const struct {
        std::size_t size, taken;  // bytes of the body, and how many the server reads before it answers
        int milliseconds;         // from the answer to the close
        bool endsFirst;           // the server ends its sending before the close
        platform::Error expected;
    } rows[] = {
        {300'000, 300'000, 5, true, 0},
        {300'000, 0, 5, true, 12030},
        {1'000'000, 0, 300, false, 12030},  // most of it waits for room in the server's buffers
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(&row - rows);
        RawServer server([&](Socket connection, const std::string&) {
            std::string bytes(65536, '\0');
            for (std::size_t left = row.taken, read = 1; left > 0 && read > 0; left -= read)
                read = ReceiveBytes(connection, bytes.data(), std::min(left, bytes.size()));
            SendText(connection, accepts + "0\r\n\r\n");
            if (row.endsFirst) shutdown(static_cast<int>(connection), SHUT_WR);
            std::this_thread::sleep_for(std::chrono::milliseconds(row.milliseconds));
        });
        EXPECT_EQ(Post(server.port, u"/x", body, row.size), row.expected);
    }
    TestServer secure(SecureServer());
    secure.server->Post("/unread", [](const httplib::Request&, httplib::Response&, const httplib::ContentReader&) {});
    agentState.gv_httpsEnabled = 1;
    EXPECT_EQ(Post(secure.port, u"/unread", body, body.size()), 12030u);
    EXPECT_EQ(Post(secure.port, u"/post", body, body.size()), 0u);
    EXPECT_EQ(secure.value.size(), body.size());
    RawServer breaks([&](Socket connection, const std::string&) {  // after the TLS greetings
        const Socket peer = ConnectToLoopback(secure.port);
        SendText(connection, "HTTP/1.1 200 OK\r\n\r\n");
        std::string bytes(65536, '\0');
        SendText(peer, bytes.substr(0, ReceiveBytes(connection, bytes.data(), bytes.size())));
        SendText(connection, bytes.substr(0, ReceiveBytes(peer, bytes.data(), bytes.size())));
        std::this_thread::sleep_for(std::chrono::milliseconds(100));  // until the client has filled the buffers
        const linger reset{1, 0};
        setsockopt(static_cast<int>(connection), SOL_SOCKET, SO_LINGER, &reset, sizeof reset);
        CloseSocket(peer);
    });
    UseProxy(ProxyList(breaks.port), u"");
    EXPECT_EQ(Post(secure.port, u"/post", body, body.size()), 12030u) << "reset in the middle";
}

TEST_F(HttpSecure, ReportsPeersThatSayTooMuchOrTooLittle) {
    for (const auto& [lines, expected] : {std::pair{250, 0u}, {265, 12182u}}) {  // of 1 KiB; 256 KiB are allowed
        std::string headers = "HTTP/1.1 200 OK\r\n";
        for (int line = 0; line < lines; ++line) headers += "X: " + std::string(1019, 'x') + "\r\n";
        RawServer wordy(Answers(headers + "\r\n"));
        EXPECT_EQ(Get(wordy.port, u"/x"), expected);
    }
    RawServer gone(Answers(""));
    EXPECT_EQ(Get(gone.port, u"/x"), 12030u);
    agentState.gv_httpsEnabled = 1;
    EXPECT_EQ(Get(gone.port, u"/x"), 12157u);
    agentState.gv_httpsEnabled = 0;
    RawServer cut(Answers("HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n5\r\n123"));
    EXPECT_EQ(Download(cut.port, u"part.bin"), 12030u);
}

}  // namespace

}  // namespace kv::test

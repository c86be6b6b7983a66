// Transactions over real connections: the bytes on the wire, and all kinds of peers.
#include <gmock/gmock.h>
#include <map>
#include <sstream>
#include <tuple>

#include "foundation/proxy_password.h"
#include "platform/http.h"
#include "platform/utf.h"
#include "tests/http/http_peers.h"

namespace kv::test {

namespace {

using testing::HasSubstr;
using testing::UnorderedElementsAreArray;

class HttpTransport : public HttpTest {};

/// The lines of a request's headers, in the transport's order, without the empty line.
std::vector<std::string> HeaderLines(const std::string& request) {
    std::vector<std::string> lines;
    std::istringstream text(request);
    for (std::string line; std::getline(text, line) && line != "\r";) lines.push_back(line);
    return lines;
}

TEST_F(HttpTransport, SendsExactlyTheseHeaders) {
    RawServer server([](Socket connection, const std::string& request) {
        char body[5];
        if (request.starts_with("POST")) ReceiveBytes(connection, body, sizeof body);
        SendText(connection, "HTTP/1.1 200 OK\r\nContent-Length: 0\r\n\r\n");
    });
    agentState.gv_ServerPort = server.port;
    std::u16string url = u"\\a\\b?c=5% d%20e";
    EXPECT_EQ(AgentSendRequest({}, 0, url, {}, nullptr, RequestKind::REQUEST_GET, 0, false), 0u);
    EXPECT_EQ(url, u"/a/b?c=5% d%20e") << "only its slashes change";
    EXPECT_EQ(Post(server.port, u"/p", "12345", 5), 0u);
    ASSERT_EQ(server.requests.size(), 2u);
    std::vector<std::string> expected = {"User-Agent: TallowmereOnCallAgent\r", "Cache-Control: no-cache\r",
                                         "Pragma: no-cache\r", "Connection: Closed\r",
                                         "Host: 127.0.0.1:" + std::to_string(server.port) + "\r"};
    expected.insert(expected.end(), {"GET /a/b?c=5%25%20d%20e HTTP/1.1\r", "Accept: */*\r"});
    EXPECT_THAT(HeaderLines(server.requests[0]), UnorderedElementsAreArray(expected));
    expected.resize(5);
    expected.insert(expected.end(), {"POST /p HTTP/1.1\r", "Content-Length: 5\r"});
    EXPECT_THAT(HeaderLines(server.requests[1]), UnorderedElementsAreArray(expected));
}

/// Of "Zürich", made by the openssl command, which also tells what is expected of it below.
constexpr std::string_view certificatePem =
    "-----BEGIN CERTIFICATE-----\n"
    "MIIBrDCCAVGgAwIBAgIURsqlNt6tEJlHRITC9suSc0t1qtUwCgYIKoZIzj0EAwIw\n"
    "KzEQMA4GA1UECgwHWsO8cmljaDEXMBUGA1UEAwwOY3MuZXhhbXBsZS5jb20wHhcN\n"
    "MjYxMTI3MDAxNzA5WhcNMzYxMTI0MDAxNzA5WjArMRAwDgYDVQQKDAdaw7xyaWNo\n"
    "MRcwFQYDVQQDDA5jcy5leGFtcGxlLmNvbTBZMBMGByqGSM49AgEGCCqGSM49AwEH\n"
    "A0IABOMsMGQjQcN4Fay0+YfiQICpUh2hBYmHMn+NqXya+Qb5ZidFwOfZPvPMgiY5\n"
    "HKO6YZM/Fa/r4Od0d3CHm4NXCdOjUzBRMB0GA1UdDgQWBBTu5seeltGs4w7zVVMA\n"
    "JvqsKXfbCDAfBgNVHSMEGDAWgBTu5seeltGs4w7zVVMAJvqsKXfbCDAPBgNVHRMB\n"
    "Af8EBTADAQH/MAoGCCqGSM49BAMCA0kAMEYCIQDhK3MYNjonNmmj/MmfU4kGnY0m\n"
    "5mU3dS6ohrG20cbo+wIhAPEIHLR9qna3RqdAXdyj2IqC5UYRHBqvmNiMNWrHlXbL\n"
    "-----END CERTIFICATE-----\n";

TEST_F(HttpTransport, ReadsCertificates) {
    const std::string pem(certificatePem);
    const std::pair<std::string, std::optional<std::size_t>> texts[] = {
        {"", 0},
        {"one\n" + pem + "and another\r\n" + pem, 2},
        {pem + pem.substr(0, pem.size() - 3), std::nullopt},
        {"-----BEGIN CERTIFICATE-----\nAAAA\n-----END CERTIFICATE-----\n", std::nullopt},
    };
    for (const auto& [text, expected] : texts) {
        std::size_t count = 0;
        const platform::Error result = platform::Http().CountCertificates(text, count);
        EXPECT_EQ(result, expected ? 0u : 13u) << text;
        EXPECT_EQ(count, expected.value_or(0)) << text;
    }
    std::string base64 = pem.substr(pem.find('\n'), pem.rfind("-----END") - pem.find('\n'));
    std::erase(base64, '\n');
    std::string der;
    for (const char16_t byte : DecodeBase64(platform::WideFromUtf8(base64))) der += static_cast<char>(byte);
    platform::HttpCertificate certificate;
    ASSERT_EQ(platform::Http().ReadCertificate(der, certificate), 0u);
    EXPECT_EQ(certificate.subject, "O=Zürich, CN=cs.example.com");
    EXPECT_EQ(certificate.issuer, certificate.subject);
    EXPECT_EQ(certificate.validFrom, 1795738629);
    EXPECT_EQ(certificate.validUntil, 2111098629);
    EXPECT_EQ(certificate.keyPin, "sha256//l82AhPPGEweKg/e6ihk4NpC1AA1vxZ5dj535HolxBnI=");
    EXPECT_EQ(certificate.fingerprint,
              "E3:89:0B:AA:18:EF:6B:4C:0B:8B:9D:1E:79:48:94:02:3D:E4:FD:DA:2A:D5:9F:43:BF:8E:31:1F:99:3B:59:31");
    EXPECT_EQ(platform::Http().ReadCertificate(der.substr(0, der.size() - 1), certificate), 13u);
}

TEST_F(HttpTransport, EncodesAnyTextForTheServer) {
    TestServer server;
    const std::map<std::u16string, std::string> rows = {
        {u"Zürich \u6771\u4eac \U0001f600", "Zürich 東京 😀"},
        {u"a%20b%26c 5%zz", "a b&c 5%zz"},          // an escape stays, another percent sign is escaped
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

TEST_F(HttpTransport, TransfersBodiesOfEverySize) {
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

TEST_F(HttpTransport, AnEarlyAnswerLosesNoBody) {
    const std::string body(12'000'000, 'z');  // more than the buffers of two sockets
    const std::tuple<const char*, const char*, std::size_t, platform::Error> rows[] = {
        {"accepts and reads on", "HTTP/1.0 200 OK\r\nContent-Length: 0\r\n\r\n", body.size(), 0},
        {"the same in chunks", "HTTP/1.1 200 OK\r\nConnection: close\r\nTransfer-Encoding: chunked\r\n\r\n0\r\n\r\n",
         body.size(), 0},
        {"accepts and closes", "HTTP/1.1 200 OK\r\nConnection: close\r\nContent-Length: 0\r\n\r\n", 70'000, 12030},
        {"goes on and refuses", "HTTP/1.1 100 Continue\r\n\r\nHTTP/1.1 500 No\r\nContent-Length: 0\r\n\r\n",
         body.size(), 13},
    };
    for (const auto& [title, answer, reads, expected] : rows) {
        SCOPED_TRACE(title);
        std::size_t got = 0;
        auto server = std::make_unique<RawServer>(AnswersThenReads(answer, got, reads));
        const platform::Error result = Post(server->port, u"/x", body, body.size());
        const bool endsAtFirst = expected == 13 && result == 12152;  // Wine ends with the first answer
        EXPECT_TRUE(result == expected || endsAtFirst) << result;
        server.reset();  // it has read to the end
        EXPECT_TRUE(expected != 0 || got == body.size()) << got;
    }
}

TEST_F(HttpTransport, FollowsRedirects) {
    TestServer server;
    TestServer other;
    EXPECT_EQ(Get(server.port, u"/hop?to=echo%3Fvalue%3Dmoved%23part"), 0u);
    EXPECT_EQ(server.value, "moved");
    EXPECT_EQ(Get(server.port, u"/hop?to=http://127.0.0.1:" + DecimalText(other.port) + u"/echo%3Fvalue%3Daway"), 0u);
    EXPECT_EQ(other.value, "away");
    EXPECT_EQ(Get(server.port, u"/hop?to=ftp://127.0.0.1/echo"), 13u);
    RawServer circle(Answers("HTTP/1.1 302 Found\r\nLocation: /again\r\nContent-Length: 0\r\n\r\n"));
    EXPECT_EQ(Get(circle.port, u"/"), 12156u);
    EXPECT_EQ(circle.requests.size(), 11u);
    RawServer target(Answers("HTTP/1.1 200 OK\r\nContent-Length: 0\r\n\r\n"));
    RawServer hop(Answers("HTTP/1.1 302 Found\r\nLocation: http://u:p@127.0.0.1:" + std::to_string(target.port) +
                          "/a b?c d\r\nContent-Length: 0\r\n\r\n"));
    EXPECT_EQ(Get(hop.port, u"/"), 0u);
    ASSERT_EQ(target.requests.size(), 1u);
    EXPECT_THAT(target.requests[0], HasSubstr("GET /a%20b?c%20d HTTP"));
    EXPECT_THAT(target.requests[0], testing::Not(HasSubstr("Authorization")));
}

TEST_F(HttpTransport, APostFollowsOnlyRedirectsThatKeepIt) {
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
}

TEST_F(HttpTransport, EachFailureHasItsNumber) {
    // A short limit on silence.
    const Replaced impatient(
        &platform::HttpOperations::WinHttpOpenRequest,
        [real = platform::Http()](auto connection, auto verb, auto url, auto types, auto flags, auto& request) {
            const platform::Error failure = real.WinHttpOpenRequest(connection, verb, url, types, flags, request);
            return failure ? failure : real.WinHttpSetOptionNumber(request, platform::HttpOption::receiveTimeout, 150);
        });
    const std::string half = "HTTP/1.1 200 OK\r\nContent-Length: 10\r\n\r\n12345";
    const struct {
        const char* title;
        RawServer::Handler peer;
        platform::Error expected;
        std::string kept = {};  // of a download
    } rows[] = {
        {"not HTTP", Answers("220 mail ready\r\nwho are you?\r\n"), 12152},
        {"half a body", Answers(half), 12030, "12345"},
        {"falls silent in the body", Answers(half, true), 12002, "12345"},
        {"an encoding not asked for", Answers("HTTP/1.1 200 OK\r\nContent-Encoding: gzip\r\n\r\nraw"), 0, "raw"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.title);
        RawServer server(row.peer);
        EXPECT_EQ(Download(server.port, u"part.bin"), row.expected);
        EXPECT_EQ(Read(bin / "part.bin"), row.kept);
    }
    RawServer cut(Answers(half));
    OptionalText response;
    EXPECT_EQ(Get(cut.port, u"/x", &response), 0u);
    EXPECT_EQ(response, u"\u3231\u3433");  // whole characters of what came
    RawServer gone(Answers("HTTP/1.1 200 OK\r\nContent-Length: 10\r\n\r\n"));
    EXPECT_EQ(Get(gone.port, u"/x", &response), 12030u) << "nothing came";
    const Replaced full(&platform::FileOperations::WriteFile, [](auto&&...) { return platform::error::diskFull; });
    EXPECT_EQ(Download(cut.port, u"part.bin"), 112u);
}

TEST_F(HttpTransport, APostThatWantsTheAnswerNeedsItsLength) {
    const std::tuple<const char*, platform::Error, OptionalText> rows[] = {
        {"Content-Length: 4\r\n\r\na\x01", 0, u"\u0161"},  // the end of a cut answer
        {"\r\n", 12150, std::nullopt},
        {"Content-Length: x\r\n\r\n", 12152, std::nullopt},
        {"Content-Length: 67108865\r\n\r\n", 8, std::nullopt},
        {"Content-Length: 4294967296\r\n\r\n", 12152, std::nullopt},
    };
    for (const auto& [answer, result, text] : rows) {
        RawServer server([&answer = answer](Socket connection, const std::string&) {
            char body[4];
            ReceiveBytes(connection, body, sizeof body);
            SendText(connection, std::string("HTTP/1.1 200 OK\r\n") + answer);
        });
        OptionalText response;
        EXPECT_EQ(Post(server.port, u"/x", "body", 4, RequestKind::REQUEST_POST_BINARY, &response), result) << answer;
        EXPECT_EQ(response, text) << answer;
    }
}

TEST_F(HttpTransport, RefusesInvalidCalls) {
    const platform::HttpOperations& http = platform::Http();
    platform::HttpHandle session = 0, connection = 0, request = 0, refused = 0;
    ASSERT_EQ(http.WinHttpOpen(u"x", platform::HttpProxyAccess::noProxy, std::nullopt, std::nullopt, session), 0u);
    ASSERT_EQ(http.WinHttpConnect(session, u"127.0.0.1", 1, connection), 0u);
    EXPECT_EQ(http.WinHttpOpenRequest(connection, u"HEAD", u"/", u"", 0, refused), 87u);
    ASSERT_EQ(http.WinHttpOpenRequest(connection, u"GET", u"/", u"", 0, request), 0u);
    EXPECT_EQ(http.WinHttpCloseHandle(session), 0u);  // handles opened from it stay valid
    EXPECT_EQ(http.WinHttpCloseHandle(session), 6u);
    EXPECT_EQ(http.WinHttpAddRequestHeaders(request, u"Name: a\r\nOther: b"), 87u);
    for (const auto& [option, milliseconds] : {std::pair{platform::HttpOption::connectTimeout, 60000u},
                                               {platform::HttpOption::sendTimeout, 30000u},
                                               {platform::HttpOption::receiveTimeout, 30000u}}) {
        std::uint32_t number = 0;
        EXPECT_EQ(http.WinHttpQueryOption(request, option, number), 0u);
        EXPECT_EQ(number, milliseconds);
    }
    EXPECT_EQ(http.WinHttpReceiveResponse(request), 12019u);
    EXPECT_EQ(http.WinHttpCloseHandle(connection), 0u);
    EXPECT_EQ(http.WinHttpCloseHandle(request), 0u);
}

TEST_F(HttpTransport, TellsWhyAnAddressCannotBeReached) {
    const int closedPort = RawServer(Answers("")).port;
    for (const auto& [address, expected] : {std::pair{u"127.0.0.1", 12029u},
                                            {u"::1", 12029u},
                                            {u"no-such-host.invalid", 12007u},
                                            {u"z\u00fcrich.invalid", 12007u},
                                            {u"127.0.0.1:80", 12005u}}) {
        agentState.gv_LastAccessName.Publish(address);
        EXPECT_EQ(Get(closedPort, u"/"), expected) << platform::Utf8FromWide(address);
    }
}

TEST_F(HttpTransport, GoesThroughTheProxyWithItsCredentials) {
    RawServer proxy(ProxyThatWants(basicCredentials));
    TestServer server;
    agentState.gv_LastAccessName.Publish(u"server.invalid");  // a name that only the proxy knows
    UseProxy(At(proxy.port), u"<local>");
    EXPECT_EQ(Get(server.port, u"/echo?value=via proxy"), 0u);
    EXPECT_EQ(server.value, "via proxy");
    EXPECT_THAT(proxy.requests.back(), HasSubstr("GET http://server.invalid:"));
    UseProxy(At(proxy.port), u"<local>", u"wrong");
    EXPECT_EQ(Get(server.port, u"/echo"), 407u);
    EXPECT_EQ(Post(server.port, u"/post", "x", 1), 407u);
}

TEST_F(HttpTransport, ReachesHostsOfTheBypassListDirectly) {
    RawServer server(Answers("HTTP/1.1 200 OK\r\n\r\n"));
    const std::map<std::u16string, bool> rows = {
        {u"", false},
        {u"<local>", false},              // names without a dot only
        {u"10.*; 11.* 127.0.0.1", true},  // any separator
        {u"https://127.*", false},
        {u"27.0.0.1;127.0.0", false},  // the name has to match whole
        {u"127.0.0.1:1", false},
    };
    for (const auto& [list, direct] : rows) {
        UseProxy(At(1), list);  // where nobody listens
        EXPECT_EQ(Get(server.port, u"/"), direct ? 0u : 12029u) << platform::Utf8FromWide(list);
    }
    UseProxy(At(1), u"<local>");
    agentState.gv_LastAccessName.Publish(u"localHost");
    EXPECT_EQ(Get(server.port, u"/"), 0u);
}

}  // namespace

}  // namespace kv::test

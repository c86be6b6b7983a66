// The order of addresses, the rounds, the restart and the headers, over a transport whose steps fail as scripted.
#include <gmock/gmock.h>
#include <map>
#include <tuple>
#include <utility>

#include "foundation/agent_health.h"
#include "foundation/registry_store.h"
#include "http/http_answers.h"
#include "platform/http.h"
#include "platform/registry.h"
#include "platform/utf.h"
#include "tests/http/http_peers.h"
#include "tests/support/virtual_clock.h"

namespace kv::test {

namespace {

using platform::Error;
using Lines = std::vector<std::string>;

/// What happens to one sending.
struct Meeting {
    Error send = 0;
    Error receive = 0;
    int status = 200;
    const char* body = "";
};

/// By letter. Answered: ok, empty, busy, proxy refusal. Failed while sending: gone, no name, login failure, cancelled.
/// Failed while receiving: time-out, Resend, Login failure, Cancelled.
const std::map<char, Meeting> meetings = {{'o', {0, 0, 200, "ok"}}, {'e', {}},         {'b', {0, 0, 503}},
                                          {'p', {0, 0, 407}},       {'g', {12029}},    {'n', {12007}},
                                          {'l', {12015}},           {'c', {12017}},    {'t', {0, 12002}},
                                          {'R', {0, 12032}},        {'L', {0, 12015}}, {'C', {0, 12017}}};

class HttpTransaction : public HttpTest {
  protected:
    HttpTransaction() {
        agentState.gv_LastAccessName.Publish(u"host");
        const auto answer = [this](const httplib::Request& request, httplib::Response& response) {
            sent.push_back(request.body);
            response.status = current.status;
            response.set_header("timeDiff", "77");
            response.set_content(current.body, "text/plain");
        };
        server.server->Get("/x", answer);
        server.server->Post("/x", answer);
    }

    /// Begins a row. Each sending takes the next letter, and 'e' after the last.
    void Restart(std::string letters) {
        script = std::move(letters);
        sent.clear();
        for (std::string* notes : {&addresses, &opened, &numbers}) notes->clear();
        sendings = 0;
        closed = 0;
    }

    /// The real operations, with the server behind every address and the script in every sending.
    platform::HttpOperations Scripted() {
        const platform::HttpOperations real = platform::Http();
        platform::HttpOperations operations = real;
        const auto opening = [this](char handle, const auto& next) {
            return [=, this](auto&&... arguments) {
                opened += handle;
                return next(arguments...);
            };
        };
        operations.WinHttpOpen = opening('s', real.WinHttpOpen);
        operations.WinHttpOpenRequest = opening('r', real.WinHttpOpenRequest);
        operations.WinHttpConnect = [=, this](auto session, auto address, auto port, auto& connection) {
            addresses += platform::Utf8FromWide(address) + " ";
            opened += "c";
            return real.WinHttpConnect(session, u"127.0.0.1", port, connection);
        };
        operations.WinHttpSetOptionNumber = [=, this](auto request, auto option, auto value) {
            numbers += std::to_string(static_cast<int>(option)) + "=" + std::to_string(value) + " ";
            return real.WinHttpSetOptionNumber(request, option, value);
        };
        operations.WinHttpSetOptionText = [=, this](auto request, auto option, auto value) {
            numbers += std::to_string(static_cast<int>(option)) + "=" + platform::Utf8FromWide(value) + " ";
            return real.WinHttpSetOptionText(request, option, value);
        };
        operations.WinHttpReadData = [=, this](auto request, auto buffer, auto size, auto& read) {
            numbers += std::to_string(size) + " ";
            return real.WinHttpReadData(request, buffer, size, read);
        };
        operations.WinHttpSendRequest = [=, this](auto request, auto body, auto size) {
            ++sendings;
            current = meetings.at(script.empty() ? 'e' : script.front());
            script.erase(0, 1);
            const bool answered = current.send == 0 && current.receive == 0;
            return answered ? real.WinHttpSendRequest(request, body, size) : current.send;
        };
        operations.WinHttpReceiveResponse = [=, this](auto request) {
            return current.receive ? current.receive : real.WinHttpReceiveResponse(request);
        };
        operations.WinHttpCloseHandle = [=, this](auto handle) {
            const Error failure = real.WinHttpCloseHandle(handle);
            closed += failure == 0 ? 1 : 0;
            return failure;
        };
        return operations;
    }

    std::string script;
    std::string addresses;   // in the order of the attempts
    Lines sent;              // bodies that reached the server
    std::string opened;      // handles: 's'ession, 'c'onnection, 'r'equest
    std::string numbers;     // of options that were set, "number=value ", and sizes of reads, "size "
    std::size_t closed = 0;  // handles
    int sendings = 0;
    Meeting current;
    VirtualClock clock;
    RunningServer server;                        // stands for every address
    const int somePort = 0x20000 + server.port;  // 16 bits of it count
    platform::ScopedOperations<platform::HttpOperations> scoped{Scripted()};
};

TEST_F(HttpTransaction, TriesTheAddressesInTheirOrder) {
    const struct {
        const char* title;
        std::string answers;  // of the addresses in their order; '-': it is too short to be used
        const char* tried;
        Error result;
        std::string remembered;
    } rows[] = {
        {"a status at the last one is final", "boooo", "last ", 13, "last"},
        {"the first one is remembered", "goggg", "last first ", 0, "first"},
        {"any failure at the first leads to the second", "nbogg", "last first second ", 0, "second"},
        {"a status at the second is final", "ggboo", "last first second ", 13, "last"},
        {"later failures hide a status at the first", "gbtog", "last first second name ", 0, "name"},
        {"nobody answers", "gntng", "last first second name flat ", 12029, "last"},
        {"a missing second keeps the first's status", "gb-oo", "last first ", 13, "last"},
        {"a missing last counts as unresolved", "-oggg", "first ", 0, "first"},
        {"no usable address", "-----", "", 12007, "ab"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.title);
        std::string letters = row.answers;
        std::erase(letters, '-');
        Restart(letters);
        const auto given = [&](std::size_t i, std::u16string name) { return row.answers[i] == '-' ? u"ab" : name; };
        agentState.gv_LastAccessName.Publish(given(0, u"last"));
        agentState.gv_ServerIPAddress = given(1, u"first");
        agentState.gv_ServerSecIPAddress = given(2, u"second");
        agentState.gv_ServerName = given(3, u"name");
        agentState.gv_ServerFlatName = given(4, u"flat");
        EXPECT_EQ(Get(somePort, u"/x"), row.result);
        EXPECT_EQ(addresses, row.tried);
        EXPECT_EQ(platform::Utf8FromWide(agentState.gv_LastAccessName.view()), row.remembered);
    }
    EXPECT_EQ(ReadLastEvents().failure, "/x: no address of the server is set");
    Get(somePort, std::u16string(9999, u'\u00e9'));
    // In UTF-8 each letter has two bytes; the beginning and the end have 500, in whole characters.
    const auto letters = [](std::size_t count) { return platform::Utf8FromWide(std::u16string(count, u'\u00e9')); };
    const std::string reason = ": no address of the server is set";
    EXPECT_EQ(ReadLastEvents().failure, letters(250) + "..." + letters((501 - reason.size()) / 2) + reason);
}

TEST_F(HttpTransaction, ResendsInRoundsAndRestartsOnce) {
    const struct {
        const char *title, *script;
        Error getResult, postResult;
        int sendings, seconds;
        bool restarted;
    } rows[] = {
        {"a second round", "Ro", 0, 0, 2, 5, false},
        {"five rounds without an answer", "RRRRRo", 12019, 12019, 5, 25, false},
        {"a login failure while receiving", "Lo", 0, 0, 2, 0, true},
        {"the code of a round stays if nothing is received, despite a restart", "RLe", 12032, 0, 3, 5, true},
        {"one restart only", "cl", 12015, 12015, 2, 0, true},
        {"later login failures are rounds without a pause", "LLLLLLo", 12019, 12019, 6, 0, true},
        {"a restart begins the rounds again", "RRRRLRRRRo", 0, 0, 10, 40, true},
        {"cancelled while receiving is final", "Co", 12017, 12017, 1, 0, false},
    };
    for (const auto& row : rows) {
        for (const bool post : {false, true}) {
            SCOPED_TRACE(row.title + std::string(post ? " POST" : " GET"));
            Restart(row.script);
            const std::int64_t start = clock.nowSeconds();
            const std::size_t before = LogText().size();
            EXPECT_EQ(post ? Post(somePort, u"/x", "abcd", 4) : Get(somePort, u"/x"),
                      post ? row.postResult : row.getResult);
            EXPECT_EQ(sendings, row.sendings);
            EXPECT_EQ(clock.nowSeconds() - start, row.seconds);
            EXPECT_EQ(opened, !row.restarted ? "scr" : post ? "scrr" : "scrscr");
            EXPECT_EQ(closed, opened.size());
            const bool isAnswered = row.postResult == 0;
            EXPECT_EQ(TimesLogged(" : connect to host:" + std::to_string(server.port) + " through no proxy: ", before),
                      isAnswered ? 0 : 1);
        }
    }
    Restart("p");
    EXPECT_EQ(Post(somePort, u"/x", "abcd", 4), 407u);
    for (const std::string routine : {"InternetGetRequestEx", "InternetSendRequestEx"}) {
        EXPECT_TRUE(Logged(routine + " : Resending the data to the server host \n"));
        EXPECT_TRUE(Logged(routine + " : Going to close the request handle and going to resending the data to the "
                                     "server host \n"));
    }
    EXPECT_TRUE(Logged("InternetSendRequestEx : Proxy Credentials are failed to authenticate 407 \n"));
}

TEST_F(HttpTransaction, OptionsFollowTheKindAndTheCredentials) {
    using enum RequestKind;
    // expected: timeout, tolerated faults of a certificate, credentials
    const std::tuple<RequestKind, std::u16string, std::u16string, std::string> rows[] = {
        {REQUEST_GET_TIMED, u"", u"", "3=30000 31=12544 "},
        {REQUEST_POST_TIMED, u"", u"", "3=30000 31=13056 "},
        {REQUEST_GET, u"u", u"password", "31=12544 "},  // a single character is not a credential
        {REQUEST_POST_BINARY, u"us", u"p", "31=13056 4098=us "},
        {REQUEST_GET_HEADERS, u"us", u"pw", "31=12544 4098=us 4099=pw "},
        {REQUEST_GET_STATUS, u"", u"pw", "31=12544 "},
    };
    agentState.gv_httpsEnabled = 1;
    for (const auto& [kind, user, password, expected] : rows) {
        Restart("g");
        UseProxy(At(1), u"", password);
        agentState.gv_proxyUserName = user;
        std::u16string url = u"/x";
        agentState.gv_ServerPort = somePort;
        EXPECT_EQ(AgentSendRequest({}, 0, url, {.body = "ab"}, nullptr, kind, 2, false), 12029u);
        EXPECT_EQ(numbers, expected);
    }
}

/// The fixed lines of all codes count as one FNV-1a sum. The line of 12038 has the program's own example and stands
/// apart.
TEST_F(HttpTransaction, EachErrorHasItsLine) {
    constexpr std::uint32_t sumOfAllLines = 784478810u;
    std::uint32_t sum = 2166136261u;
    for (platform::Error code = 12001; code <= 12183; ++code) {
        const std::size_t before = LogText().size();
        HttpGetLastError(code);
        const std::string text = LogText().substr(before);
        const std::size_t start = text.find("HttpGetLastError:");
        if (start == std::string::npos || code == 12038) continue;
        for (const char c : text.substr(start)) sum = (sum ^ static_cast<unsigned char>(c)) * 16777619u;
    }
    EXPECT_EQ(sum, sumOfAllLines);
    HttpGetLastError(12038);
    EXPECT_TRUE(Logged("HttpGetLastError: SSL certificate common name (host name field) is incorrect. "));
    HttpGetLastError(12184);
    EXPECT_TRUE(Logged("Error code : 12184, Error Message : "));
}

TEST_F(HttpTransaction, SendsAndReadsTheBytesOfEachKind) {
    const std::string wide("h\0a\0l\0f\0", 8);
    for (const std::size_t length : {8u, 6u, 0u, 99u}) EXPECT_EQ(Post(somePort, u"/x", wide, length), 0u);
    EXPECT_EQ(Post(somePort, u"/x", wide, 8, RequestKind::REQUEST_POST_TIMED), 0u);
    EXPECT_THAT(sent, testing::ElementsAre(wide, wide.substr(0, 6), wide.substr(0, 4), wide, wide.substr(0, 4)));
    Restart("o");
    std::u16string url = u"/x";
    EXPECT_EQ(InternetSendRequest({}, 0, url, std::nullopt, nullptr, false), 13u);
    EXPECT_EQ(opened, "");
    OptionalText response;
    EXPECT_EQ(InternetSendRequest({}, 0, url, wide, &response, false), 0u);
    EXPECT_EQ(std::exchange(response, std::nullopt), u"\u6b6f");
    Restart("o");
    EXPECT_EQ(InternetGetRequest({}, 0, url, &response, false), 0u);
    EXPECT_EQ(response, u"\u6b6f");
    EXPECT_EQ(numbers, "3=30000 2 ");
    Restart("o");
    EXPECT_EQ(Download(somePort, u"two.bin"), 0u);
    EXPECT_EQ(numbers, "50 50 ");
}

TEST_F(HttpTransaction, TakesTheAgentsHeaders) {
    EXPECT_EQ(Get(somePort, u"/x"), 0u);
    EXPECT_EQ(agentState.gv_timeDiff, 0);
    EXPECT_EQ(Get(somePort, u"/x", nullptr, RequestKind::REQUEST_GET_HEADERS), 0u);
    EXPECT_EQ(agentState.gv_timeDiff, 77);
    {
        const Replaced full(&platform::RegistryOperations::RegSetValueExW,
                            [](auto&&...) { return platform::error::diskFull; });
        ParseHeader(u"AgentKey: K7\r\n");  // stored at the next answer
    }
    ParseHeader(u"HTTP/1.1 200 OK\r\ntimeDiff: -90 more\r\nAgentKey: K7\r\nAgentRun: 0\r\nSNMPTimeout:   9\r\n");
    OptionalText stored;
    EXPECT_EQ(GetOCAgentKey(stored), 0u);
    EXPECT_EQ(stored, u"K7");
    ParseHeader(u"TIMEDIFF: 5\r\nAgentKey: ..\\up\r\nAgentRun: yes\r\n");  // none of these is valid
    for (const char16_t* dots : {u"AgentKey: .\r\n", u"AgentKey: ..\r\n", u"AgentKey: ...\r\n"}) ParseHeader(dots);
    EXPECT_EQ(agentState.gv_timeDiff, -90);
    EXPECT_EQ(agentState.gv_agentKey.view(), u"K7");
    EXPECT_EQ(agentState.gv_agentRunFlag, 0);
    EXPECT_EQ(agentState.gv_SNMPTimeout.view(), u"9");
    ParseHeader(u"timeDiff: 99999999999\r\nSNMPTimeout: 1234567890\r\n");
    EXPECT_EQ(agentState.gv_timeDiff, 0);
    EXPECT_EQ(agentState.gv_SNMPTimeout.view(), u"9");
}

}  // namespace

}  // namespace kv::test

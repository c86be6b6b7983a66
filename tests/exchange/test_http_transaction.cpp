// The order of addresses, the rounds, the restart and the headers, against a transport that does as it is told.
#include <fmt/printf.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <map>
#include <vector>

#include "exchange/http_answers.h"
#include "exchange/http_transaction.h"
#include "foundation/agent_state.h"
#include "foundation/registry_store.h"
#include "platform/http.h"
#include "platform/utf.h"
#include "tests/support/test_agent.h"
#include "tests/support/virtual_clock.h"

namespace kv::test {

namespace {

using platform::Error;
using platform::HttpHandle;
using testing::ElementsAre;
using testing::IsEmpty;
using Lines = std::vector<std::string>;

/// What one sending meets, by its letter.
struct Meeting {
    Error send = 0;
    Error receive = 0;
    std::uint32_t status = 200;
    const char* body = "";
};
const std::map<char, Meeting> meetings = {
    // answered: ok, empty, busy, proxy refusal
    {'o', {0, 0, 200, "ok"}},
    {'e', {}},
    {'b', {0, 0, 503}},
    {'p', {0, 0, 407}},
    // not answered: gone, no name, time-out, broken
    {'g', {12029}},
    {'n', {12007}},
    {'t', {0, 12002}},
    {'x', {0, 12030}},
    // resend, login failure and cancellation on receiving; the latter two on sending
    {'R', {0, 12032}},
    {'L', {0, 12015}},
    {'C', {0, 12017}},
    {'l', {12015}},
    {'c', {12017}},
};

/// Notes every operation with what it was given; each sending takes the next letter of the script.
struct ScriptedTransport {
    std::string script;                    // at its end every sending is an 'e'
    std::map<std::string, Error> failing;  // operation -> error
    Lines calls;
    Lines addresses;                  // in the order of the attempts
    Lines sent;                       // bodies
    std::map<HttpHandle, char> open;  // handle -> 's'ession, 'c'onnection, 'r'equest
    std::string closed;               // kinds in the order of closing
    HttpHandle last = 0;
    std::string body;
    Meeting current;
    bool answered = false;

    Error Note(const std::string& operation, const std::string& details = "") {
        calls.push_back(operation + details);
        return failing.contains(operation) ? failing[operation] : 0;
    }
    Error Open(char kind, HttpHandle& handle, const std::string& operation, const std::string& details) {
        const Error failure = Note(operation, details);
        if (failure == 0) open[handle = ++last] = kind;
        return failure;
    }
    Error Send(const std::byte* data, std::size_t size) {
        sent.emplace_back(reinterpret_cast<const char*>(data), size);
        current = meetings.at(script.empty() ? 'e' : script.front());
        script.erase(0, 1);
        body = current.body;
        answered = false;
        return Note("Send") + current.send;
    }
    Error Read(std::byte* buffer, std::size_t size, std::size_t& read) {
        read = body.copy(reinterpret_cast<char*>(buffer), size);
        body.erase(0, read);
        return Note("ReadData", fmt::sprintf(" %d", size));
    }
    Error QueryNumber(platform::HttpHeaderQuery query, std::uint32_t& number) {
        const bool status = query == platform::HttpHeaderQuery::statusCodeNumber;
        number = status ? current.status : static_cast<std::uint32_t>(body.size());
        return Note(status ? "QueryStatus" : "QueryLength");
    }
    platform::HttpOperations Operations();
};

platform::HttpOperations ScriptedTransport::Operations() {
    const auto utf8 = [](const auto& text) { return platform::Utf8FromWide(text); };
    return {
        .WinHttpOpen =
            [=, this](auto agent, auto access, auto& name, auto& bypass, HttpHandle& session) {
                const std::string proxy = name ? " " + utf8(*name) + " " + utf8(bypass.value_or(u"none")) : "";
                return Open('s', session, "Open",
                            fmt::sprintf(" %s %d", utf8(agent), static_cast<int>(access)) + proxy);
            },
        .WinHttpConnect =
            [=, this](HttpHandle, auto server, auto port, HttpHandle& connection) {
                addresses.push_back(utf8(server));
                return Open('c', connection, "Connect", fmt::sprintf(" %d", port));
            },
        .WinHttpOpenRequest =
            [=, this](HttpHandle, auto verb, auto, auto types, auto flags, HttpHandle& request) {
                return Open('r', request, "OpenRequest", fmt::sprintf(" %s %s 0x%x", utf8(verb), utf8(types), flags));
            },
        .WinHttpAddRequestHeaders = [=, this](HttpHandle, auto text) { return Note("AddHeaders", " " + utf8(text)); },
        .WinHttpSetOptionNumber =
            [=, this](HttpHandle, auto option, std::uint32_t value) {
                return Note("SetOption", fmt::sprintf(" 0x%x 0x%x", static_cast<int>(option), value));
            },
        .WinHttpSetOptionText =
            [=, this](HttpHandle, auto option, auto value) {
                return Note("SetText", fmt::sprintf(" 0x%x %s", static_cast<int>(option), utf8(value)));
            },
        .WinHttpQueryOption = [](HttpHandle, auto, std::uint32_t& value) { return value = 1, 0u; },
        .WinHttpSendRequest = [this](HttpHandle, auto data, std::size_t size) { return Send(data, size); },
        .WinHttpReceiveResponse = [this](HttpHandle) { return answered = current.receive == 0, current.receive; },
        .WinHttpQueryHeadersText =
            [this](HttpHandle, auto, std::u16string& text) {
                text = u"HTTP/1.1 200 OK\r\ntimeDiff: 77\r\n\r\n";
                return answered ? Note("QueryHeaders") : 12019u;
            },
        .WinHttpQueryHeadersNumber = [this](HttpHandle, auto query,
                                            auto& number) { return QueryNumber(query, number); },
        .WinHttpQueryDataAvailable = [this](HttpHandle, auto& available) { return available = body.size(), 0u; },
        .WinHttpReadData = [this](HttpHandle, auto buffer, auto size, auto& read) { return Read(buffer, size, read); },
        .WinHttpCloseHandle =
            [this](HttpHandle handle) {
                closed += open.at(handle);
                open.erase(handle);
                return Note("Close");
            },
    };
}

class HttpTransaction : public TestAgent {
  protected:
    HttpTransaction() {
        agentState.gv_LastAccessName.publish(u"host");
        agentState.gv_httpsEnabled = 0;
        agentState.gv_ServerPort = 0x20000 + 8443;
    }
    static Error Get(RequestKind kind = RequestKind::REQUEST_GET) {
        std::u16string url = u"/x";
        return AgentSendRequest({}, 0, url, {}, nullptr, kind, 0, false);
    }
    static Error Post(std::string_view body, std::size_t length, RequestKind kind = RequestKind::REQUEST_POST_BINARY) {
        std::u16string url = u"/x";
        return AgentSendRequest({}, 0, url, {.body = body}, nullptr, kind, length, false);
    }

    VirtualClock clock;
    ScriptedTransport transport;
    platform::ScopedOperations<platform::HttpOperations> scoped{transport.Operations()};
};

TEST_F(HttpTransaction, TriesTheAddressesInTheirOrder) {
    const Lines names{"last", "first", "second", "name", "flat"};
    const struct {
        const char* title;
        std::string answers;  // of the addresses in their order; '-' is one that is too short to be used
        std::vector<int> tried;
        Error result;
        std::string remembered;
    } rows[] = {
        {"the last one answers", "ogggg", {0}, 0, "last"},
        {"a status at the last one is final", "boooo", {0}, 13, "last"},
        {"so is a proxy's refusal", "poooo", {0}, 407, "last"},
        {"and a broken connection", "xoooo", {0}, 12030, "last"},
        {"the first one is remembered", "goggg", {0, 1}, 0, "first"},
        {"from first to second any failure leads", "nbogg", {0, 1, 2}, 0, "second"},
        {"a refusal too", "tpogg", {0, 1, 2}, 0, "second"},
        {"from second on no status", "ggboo", {0, 1, 2}, 13, "last"},
        {"a status at the first is forgotten", "gbtog", {0, 1, 2, 3}, 0, "name"},
        {"a refusal at the name", "gggpo", {0, 1, 2, 3}, 407, "last"},
        {"to the end", "gggno", {0, 1, 2, 3, 4}, 0, "flat"},
        {"and nobody there", "gntng", {0, 1, 2, 3, 4}, 12029, "last"},
        {"a missing second keeps the first's status", "gb-oo", {0, 1}, 13, "last"},
        {"a missing last counts as unresolved", "-oggg", {1}, 0, "first"},
        {"none at all", "-----", {}, 12007, "ab"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.title);
        transport = {};
        Lines tried;
        for (const int index : row.tried) {
            transport.script += row.answers[static_cast<std::size_t>(index)];
            tried.push_back(names[static_cast<std::size_t>(index)]);
        }
        const auto given = [&](std::size_t i) {
            return row.answers[i] == '-' ? u"ab" : platform::WideFromUtf8(names[i]);
        };
        agentState.gv_LastAccessName.publish(given(0));
        agentState.gv_ServerIPAddress = given(1);
        agentState.gv_ServerSecIPAddress = given(2);
        agentState.gv_ServerName = given(3);
        agentState.gv_ServerFlatName = given(4);
        EXPECT_EQ(Get(), row.result);
        EXPECT_EQ(transport.addresses, tried);
        EXPECT_EQ(platform::Utf8FromWide(agentState.gv_LastAccessName.view()), row.remembered);
    }
}

TEST_F(HttpTransaction, ResendsInRoundsAndRestartsOnce) {
    const struct {
        const char* title;
        const char* script;
        Error getResult;
        Error postResult;
        std::size_t sendings;
        int seconds;
        bool restarted;
    } rows[] = {
        {"no trouble", "o", 0, 0, 1, 0, false},
        {"one round more", "Ro", 0, 0, 2, 5, false},
        {"its code stands when nothing is received", "Re", 12032, 0, 2, 5, false},
        {"five rounds and no answer", "RRRRRo", 12019, 12019, 5, 25, false},
        {"login failure on receiving", "Lo", 0, 0, 2, 0, true},
        {"the restart leaves no code", "Le", 0, 0, 2, 0, true},
        {"nor does it take one away", "RLe", 12032, 0, 3, 5, true},
        {"login failure on sending", "lo", 0, 0, 2, 0, true},
        {"cancelled on sending", "co", 0, 0, 2, 0, true},
        {"one restart only", "cl", 12015, 12015, 2, 0, true},
        {"later login failures are rounds without pause", "LLLo", 0, 0, 4, 0, true},
        {"and run out", "LLLLLLo", 12019, 12019, 6, 0, true},
        {"a restart begins the rounds anew", "RRRRLRRRRo", 0, 0, 10, 40, true},
        {"cancelled on receiving is final", "Co", 12017, 12017, 1, 0, false},
    };
    for (const auto& row : rows) {
        for (const bool post : {false, true}) {
            SCOPED_TRACE(row.title + std::string(post ? " POST" : " GET"));
            transport = {};
            transport.script = row.script;
            const std::int64_t start = clock.nowSeconds();
            EXPECT_EQ(post ? Post("abcd", 4) : Get(), post ? row.postResult : row.getResult);
            EXPECT_EQ(transport.sent, Lines(row.sendings, post ? "abcd" : ""));
            EXPECT_EQ(clock.nowSeconds() - start, row.seconds);
            EXPECT_EQ(transport.closed, !row.restarted ? "rcs" : post ? "rrcs" : "rrcscs");
        }
    }
    EXPECT_TRUE(Logged("InternetGetRequestEx : Resending the data to the server host \n"));
    EXPECT_TRUE(
        Logged("InternetSendRequestEx : Going to close the request handle and going to resending the data to the "
               "server host \n"));
}

TEST_F(HttpTransaction, EachKindHasItsOptions) {
    agentState.gv_httpsEnabled = 1;
    agentState.gv_proxyEnabled = u"Yes";
    agentState.gv_proxyServerName = u"proxy:80";
    agentState.gv_proxyUserName = u"us";
    agentState.gv_proxyPassword = u"pw";
    const std::string open = "Open TallowmereOnCallAgent 3 proxy:80 <local>", connect = "Connect 8443";
    const std::string get = "OpenRequest GET */* 0x800100", post = "OpenRequest POST  0x800100";
    const std::string header = "AddHeaders Connection: Closed", limit = "SetOption 0x3 0x7530";
    const std::string user = "SetText 0x1002 us", password = "SetText 0x1003 pw";
    const std::map<RequestKind, Lines> kinds = {
        {RequestKind::REQUEST_GET_TIMED, {open, connect, get, header, limit, "SetOption 0x1f 0x3101", user, password}},
        {RequestKind::REQUEST_GET, {open, connect, get, header, "SetOption 0x1f 0x3101", user, password}},
        {RequestKind::REQUEST_POST_TIMED,
         {open, connect, post, header, limit, "SetOption 0x1f 0x3301", user, password}},
        {RequestKind::REQUEST_POST_BINARY, {open, connect, post, header, "SetOption 0x1f 0x3301", user, password}},
    };
    for (const auto& [kind, expected] : kinds) {
        transport = {};
        EXPECT_EQ(Post("abcd", 3, kind), 0u);
        EXPECT_EQ(Lines(transport.calls.begin(), std::ranges::find(transport.calls, "Send")), expected);
    }
    EXPECT_EQ(agentState.gv_timeDiff, 0);
    EXPECT_EQ(Get(RequestKind::REQUEST_GET_HEADERS), 0u);
    EXPECT_EQ(agentState.gv_timeDiff, 77);
    transport = {};
    agentState.gv_proxyUserName = u"u";  // too short to be one
    EXPECT_EQ(Get(), 0u);
    EXPECT_THAT(transport.calls, testing::Not(testing::Contains(testing::StartsWith("SetText"))));
    agentState.gv_proxyEnabled = u"true";
    agentState.gv_httpsEnabled = 0;
    transport = {};
    std::u16string url = u"a\\b";
    EXPECT_EQ(InternetDownloadFile({}, 0, url, u"to.bin", true), 0u);
    EXPECT_EQ(url, u"a/b");
    EXPECT_THAT(transport.calls, ElementsAre("Open TallowmereOnCallAgent 1", connect, "OpenRequest GET */* 0x100",
                                             "AddHeaders Connection: keep-active", "Send", "QueryHeaders",
                                             "QueryStatus", "ReadData 50", "Close", "Close", "Close"));
}

TEST_F(HttpTransaction, PostsSendWhatTheirKindCounts) {
    const std::string wide("h\0a\0l\0f\0", 8);
    for (const std::size_t length : {8u, 6u, 0u, 99u}) EXPECT_EQ(Post(wide, length), 0u);
    EXPECT_EQ(Post(wide, 8, RequestKind::REQUEST_POST_TIMED), 0u);
    EXPECT_THAT(transport.sent, ElementsAre(wide, wide.substr(0, 6), wide.substr(0, 4), wide, wide.substr(0, 4)));
    transport = {};
    transport.script = "o";
    std::u16string url = u"/x";
    EXPECT_EQ(InternetSendRequest({}, 0, url, std::nullopt, nullptr, false), 13u);
    EXPECT_THAT(transport.calls, IsEmpty());
    OptionalText response;
    EXPECT_EQ(InternetSendRequest({}, 0, url, wide, &response, false), 0u);
    EXPECT_EQ(response, u"\u6b6f");
}

TEST_F(HttpTransaction, AFailedStepIsLoggedAndEverythingClosed) {
    agentState.gv_httpsEnabled = 1;
    agentState.gv_proxyEnabled = u"yes";
    agentState.gv_proxyUserName = u"user";
    const struct {
        std::string operation;
        std::string line;  // behind the routine's name
        const char* closed;
        Error result = 12004;
    } rows[] = {
        {"Open", " :  Error in WinHttpOpen --> 12004 \n", ""},
        {"Connect", " :  Error in WinHttpConnect --> 12004 \n", "s"},
        {"OpenRequest", " :  Error in WinHttpOpenRequest --> 12004 \n", "cs"},
        {"AddHeaders", " :  Error in WinHttpAddRequestHeaders --> 12004 \n", "rcs", 0},
        {"SetOption", " :  Error in WinHttpSetOption --> 12004 \n", "rcs"},
        {"SetText", " :  Error in InternetSetOption --> 12004 \n", "rcs"},
        {"Send", " :  Error in WinHttpSendRequest -> 12004 \n", "rcs"},
        {"QueryHeaders", " :  Error in WinHttpQueryHeaders --> 12004 \n", "rcs"},
        {"QueryStatus", " : WinHttpQueryHeaders failed with the error code while getting http status code 12004 \n",
         "rcs"},
        {"Close", " :  Error in WinHttpCloseHandle --> 12004 \n", "rcs", 0},
    };
    for (const auto& row : rows) {
        for (const std::string routine : {"InternetGetRequestEx", "InternetSendRequestEx"}) {
            SCOPED_TRACE(routine + " " + row.operation);
            transport = {};
            transport.failing[row.operation] = 12004;
            EXPECT_EQ(routine == "InternetGetRequestEx" ? Get() : Post("ab", 2), row.result);
            EXPECT_TRUE(Logged((row.operation == "Connect" ? "InternetSendRequestEx" : routine) + row.line));
            EXPECT_EQ(transport.closed, row.closed);
        }
    }
    EXPECT_TRUE(Logged("HttpGetLastError: An internal error has occurred.\n"));
    transport = {};
    transport.script = "xoo";
    EXPECT_EQ(Get(), 12030u);
    EXPECT_TRUE(Logged("InternetGetRequestEx :  Error - WinHttpReceiveResponse --> 12030 \n"));
    std::u16string url = u"/x";
    EXPECT_EQ(InternetDownloadFile({}, 0, url, u"no\\such\\dir.bin", false), 6u);
    EXPECT_TRUE(Logged("InternetGetRequestEx :  Error in WriteFile --> 6 \n"));
    transport.failing["ReadData"] = 12030;
    EXPECT_EQ(InternetDownloadFile({}, 0, url, u"got.bin", false), 12030u);
    EXPECT_TRUE(Logged("InternetGetRequestEx :  Error in WinHttpReadData --> 12030 \n"));
}

using HttpAnswers = TestAgent;

TEST_F(HttpAnswers, HeadersFillTheState) {
    EXPECT_EQ(ParseHeader(std::nullopt), 0);
    EXPECT_EQ(
        ParseHeader(u"HTTP/1.1 200 OK\r\ntimeDiff: -90 more\r\nAgentKey: K7\r\nAgentRun: 0\r\nSNMPTimeout:   9\r\n"),
        1);
    EXPECT_EQ(agentState.gv_timeDiff, -90);
    EXPECT_EQ(agentState.gv_agentKey.view(), u"K7");
    EXPECT_EQ(agentState.gv_agentRunFlag, 0);
    EXPECT_EQ(agentState.gv_SNMPTimeout.view(), u"9");
    OptionalText stored;
    EXPECT_EQ(GetOCAgentKey(stored), 0u);
    EXPECT_EQ(stored, u"K7");
    EXPECT_EQ(ParseHeader(u"TIMEDIFF: 5\r\nAgentKey: ..\\up\r\nAgentRun: yes\r\n"),
              1);  // nothing here that can be taken
    EXPECT_EQ(agentState.gv_timeDiff, -90);
    EXPECT_EQ(agentState.gv_agentKey.view(), u"K7");
    EXPECT_EQ(agentState.gv_agentRunFlag, 0);
    EXPECT_EQ(agentState.gv_SNMPTimeout.view(), u"9");
    EXPECT_TRUE(Logged("\t ParseHeader() :: SubString returned NULL for timeDiff\n"));
    EXPECT_TRUE(Logged("\t WARNING!!!!!!!! ParseHeader() :: SubString returned NULL for SNMPTimeout\n"));
    const std::map<std::u16string, int> words = {{u"12x", 0}, {u"+7", 7}, {u"", 0}, {u"99999999999", 0}};
    for (const auto& [word, number] : words) {
        ParseHeader(u"timeDiff: " + word + u"\r\nSNMPTimeout: \r\n");
        EXPECT_EQ(agentState.gv_timeDiff, number);
    }
    EXPECT_NE(agentState.gv_SNMPTimeout.get(), nullptr);
    EXPECT_EQ(agentState.gv_SNMPTimeout.view(), u"");
}

TEST_F(HttpAnswers, ErrorsAreExplained) {
    HttpGetLastError(12002);
    EXPECT_TRUE(Logged("HttpGetLastError: The request has timed out.\n"));
    HttpGetLastError(12182);
    EXPECT_TRUE(
        Logged("HttpGetLastError:an overflow condition is encountered in the course of parsing chunked encoding"));
    for (const Error code : {5u, 12000u, 12047u, 12184u, 12185u}) {
        HttpGetLastError(code);
        EXPECT_TRUE(Logged("\t Error code : " + std::to_string(code) + ", Error Message : "));
    }
}

}  // namespace

}  // namespace kv::test

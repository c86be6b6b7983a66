// The order of addresses, the rounds, the restart and the headers, over a transport of which steps are made to fail.
#include <fmt/printf.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <map>
#include <tuple>
#include <vector>

#include "exchange/http_answers.h"
#include "exchange/http_transaction.h"
#include "foundation/agent_state.h"
#include "foundation/registry_store.h"
#include "platform/http.h"
#include "platform/registry.h"
#include "platform/utf.h"
#include "tests/exchange/http_peers.h"
#include "tests/support/test_agent.h"
#include "tests/support/virtual_clock.h"

namespace kv::test {

namespace {

using platform::Error;
using testing::ElementsAre;
using Lines = std::vector<std::string>;

/// What one sending meets.
struct Meeting {
    Error send = 0;
    Error receive = 0;
    int status = 200;
    const char* body = "";
};

/// By letter. Answered: ok, empty, busy, proxy refusal. Not answered: gone, no name, time-out, broken; on receiving
/// resend, login failure, cancelled; on sending the latter two.
const std::map<char, Meeting> meetings = {
    {'o', {0, 0, 200, "ok"}}, {'e', {}},         {'b', {0, 0, 503}}, {'p', {0, 0, 407}}, {'g', {12029}},
    {'n', {12007}},           {'t', {0, 12002}}, {'x', {0, 12030}},  {'R', {0, 12032}},  {'L', {0, 12015}},
    {'C', {0, 12017}},        {'l', {12015}},    {'c', {12017}}};

class HttpTransaction : public TestAgent {
  protected:
    HttpTransaction() {
        agentState.gv_LastAccessName.publish(u"host");
        agentState.gv_httpsEnabled = 0;
        agentState.gv_ServerPort = 0x20000 + server.port;
        const auto answer = [this](const httplib::Request& request, httplib::Response& response) {
            sent.push_back(request.body);
            response.status = current.status;
            response.set_header("timeDiff", "77");
            response.set_content(current.body, "text/plain");
        };
        server.server->Get("/x", answer);
        server.server->Post("/x", answer);
        ScriptOperations();
    }

    static Error Get(RequestKind kind = RequestKind::REQUEST_GET) {
        std::u16string url = u"/x";
        return AgentSendRequest({}, 0, url, {}, nullptr, kind, 0, false);
    }
    static Error Post(std::string_view body, std::size_t length, RequestKind kind = RequestKind::REQUEST_POST_BINARY) {
        std::u16string url = u"/x";
        return AgentSendRequest({}, 0, url, {.body = body}, nullptr, kind, length, false);
    }

    /// Begins a row: each sending takes the next letter; at the end of the script each is an 'e'.
    void Restart(std::string letters) {
        script = std::move(letters);
        for (Lines* lines : {&calls, &addresses, &options, &sent}) lines->clear();
        closed.clear();
    }

    /// Notes an operation and makes it fail when it is to; the kind is that of the handle it opens.
    template <class... Arguments>
    void Spy(std::function<Error(Arguments...)> platform::HttpOperations::*operation, const std::string& name,
             char kind = '-') {
        operations.*operation = [this, name, kind, next = operations.*operation](Arguments... arguments) {
            calls.push_back(name);
            if (failing == name) return Error{12004};
            const Error failure = next(arguments...);
            using Last = std::tuple_element_t<sizeof...(Arguments) - 1, std::tuple<Arguments...>>;
            if constexpr (std::is_same_v<Last, platform::HttpHandle&>) {
                kinds[std::get<sizeof...(Arguments) - 1>(std::tie(arguments...))] = kind;
            }
            return failure;
        };
    }

    void ScriptOperations();

    std::string script;
    std::string failing;  // the operation that gives 12004
    Lines calls;          // names of the operations
    Lines addresses;      // in the order of the attempts
    Lines options;
    Lines sent;                                  // bodies that have reached the server
    std::map<platform::HttpHandle, char> kinds;  // 's'ession, 'c'onnection, 'r'equest
    std::string closed;                          // kinds in the order of closing
    Meeting current;
    VirtualClock clock;
    RunningServer server;  // stands for every address
    platform::HttpOperations operations = platform::Http();
    std::optional<platform::ScopedOperations<platform::HttpOperations>> scoped;
};

void HttpTransaction::ScriptOperations() {
    using Operations = platform::HttpOperations;
    const Operations real = operations;
    operations.WinHttpConnect = [=, this](auto session, auto address, auto port, auto& connection) {
        addresses.push_back(platform::Utf8FromWide(address));
        return real.WinHttpConnect(session, u"127.0.0.1", port, connection);
    };
    operations.WinHttpSetOptionNumber = [=, this](auto request, auto option, auto value) {
        options.push_back(fmt::sprintf("%d: 0x%x", static_cast<int>(option), value));
        return real.WinHttpSetOptionNumber(request, option, value);
    };
    operations.WinHttpSendRequest = [=, this](auto request, auto body, auto size) {
        current = meetings.at(script.empty() ? 'e' : script.front());
        script.erase(0, 1);
        const bool answered = current.send == 0 && current.receive == 0;
        return answered ? real.WinHttpSendRequest(request, body, size) : current.send;
    };
    operations.WinHttpReceiveResponse = [=, this](auto request) {
        return current.receive ? current.receive : real.WinHttpReceiveResponse(request);
    };
    operations.WinHttpCloseHandle = [=, this](auto handle) {
        closed += kinds.at(handle);
        const Error failure = real.WinHttpCloseHandle(handle);
        return failing == "WinHttpCloseHandle" ? Error{12004} : failure;
    };
    Spy(&Operations::WinHttpOpen, "WinHttpOpen", 's');
    Spy(&Operations::WinHttpConnect, "WinHttpConnect", 'c');
    Spy(&Operations::WinHttpOpenRequest, "WinHttpOpenRequest", 'r');
    Spy(&Operations::WinHttpAddRequestHeaders, "WinHttpAddRequestHeaders");
    Spy(&Operations::WinHttpSetOptionNumber, "WinHttpSetOption");
    Spy(&Operations::WinHttpSetOptionText, "InternetSetOption");
    Spy(&Operations::WinHttpSendRequest, "WinHttpSendRequest");
    Spy(&Operations::WinHttpQueryHeadersText, "WinHttpQueryHeaders");
    Spy(&Operations::WinHttpQueryHeadersNumber, "http status code");
    scoped.emplace(operations);
}

TEST_F(HttpTransaction, TriesTheAddressesInTheirOrder) {
    const Lines names{"last", "first", "second", "name", "flat"};
    const struct {
        const char* title;
        std::string answers;  // of the addresses in their order; '-' is one that is too short to be used
        std::vector<std::size_t> tried;
        Error result;
        std::string remembered;
    } rows[] = {
        {"the last one answers", "ogggg", {0}, 0, "last"},
        {"a status at the last one is final", "boooo", {0}, 13, "last"},
        {"and a broken connection", "xoooo", {0}, 12030, "last"},
        {"the first one is remembered", "goggg", {0, 1}, 0, "first"},
        {"from first to second any failure leads", "nbogg", {0, 1, 2}, 0, "second"},
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
        Lines tried;
        std::string letters;
        for (const std::size_t index : row.tried) {
            letters += row.answers[index];
            tried.push_back(names[index]);
        }
        Restart(letters);
        const auto given = [&](std::size_t i) {
            return row.answers[i] == '-' ? u"ab" : platform::WideFromUtf8(names[i]);
        };
        agentState.gv_LastAccessName.publish(given(0));
        agentState.gv_ServerIPAddress = given(1);
        agentState.gv_ServerSecIPAddress = given(2);
        agentState.gv_ServerName = given(3);
        agentState.gv_ServerFlatName = given(4);
        EXPECT_EQ(Get(), row.result);
        EXPECT_EQ(addresses, tried);
        EXPECT_EQ(platform::Utf8FromWide(agentState.gv_LastAccessName.view()), row.remembered);
    }
}

TEST_F(HttpTransaction, ResendsInRoundsAndRestartsOnce) {
    const struct {
        const char* title;
        const char* script;
        Error getResult;
        Error postResult;
        int sendings;
        int seconds;
        bool restarted;
    } rows[] = {
        {"one round more", "Ro", 0, 0, 2, 5, false},
        {"five rounds and no answer", "RRRRRo", 12019, 12019, 5, 25, false},
        {"login failure on receiving", "Lo", 0, 0, 2, 0, true},
        {"a round's code stands, beyond a restart too, when nothing is received", "RLe", 12032, 0, 3, 5, true},
        {"cancelled on sending", "co", 0, 0, 2, 0, true},
        {"one restart only", "cl", 12015, 12015, 2, 0, true},
        {"later login failures are rounds without pause", "LLLLLLo", 12019, 12019, 6, 0, true},
        {"a restart begins the rounds anew", "RRRRLRRRRo", 0, 0, 10, 40, true},
        {"cancelled on receiving is final", "Co", 12017, 12017, 1, 0, false},
    };
    for (const auto& row : rows) {
        for (const bool post : {false, true}) {
            SCOPED_TRACE(row.title + std::string(post ? " POST" : " GET"));
            Restart(row.script);
            const std::int64_t start = clock.nowSeconds();
            EXPECT_EQ(post ? Post("abcd", 4) : Get(), post ? row.postResult : row.getResult);
            EXPECT_EQ(std::ranges::count(calls, "WinHttpSendRequest"), row.sendings);
            EXPECT_EQ(clock.nowSeconds() - start, row.seconds);
            EXPECT_EQ(closed, !row.restarted ? "rcs" : post ? "rrcs" : "rrcscs");
        }
    }
    EXPECT_TRUE(Logged("InternetGetRequestEx : Resending the data to the server host \n"));
    EXPECT_TRUE(Logged("InternetSendRequestEx : Going to close the request handle and going to resending the data"));
}

TEST_F(HttpTransaction, EachKindHasItsOptions) {
    agentState.gv_httpsEnabled = 1;
    const std::map<RequestKind, Lines> rows = {
        {RequestKind::REQUEST_GET_TIMED, {"3: 0x7530", "31: 0x3100"}},
        {RequestKind::REQUEST_GET, {"31: 0x3100"}},
        {RequestKind::REQUEST_POST_TIMED, {"3: 0x7530", "31: 0x3300"}},
        {RequestKind::REQUEST_POST_BINARY, {"31: 0x3300"}},
    };
    for (const auto& [kind, expected] : rows) {
        Restart("");
        EXPECT_EQ(Post("abcd", 3, kind), 12157u);  // the server speaks no TLS
        EXPECT_EQ(options, expected);
    }
    agentState.gv_httpsEnabled = 0;
    EXPECT_EQ(Get(), 0u);
    EXPECT_EQ(agentState.gv_timeDiff, 0);
    EXPECT_EQ(Get(RequestKind::REQUEST_GET_HEADERS), 0u);
    EXPECT_EQ(agentState.gv_timeDiff, 77);
}

TEST_F(HttpTransaction, PostsSendWhatTheirKindCounts) {
    const std::string wide("h\0a\0l\0f\0", 8);
    for (const std::size_t length : {8u, 6u, 0u, 99u}) EXPECT_EQ(Post(wide, length), 0u);
    EXPECT_EQ(Post(wide, 8, RequestKind::REQUEST_POST_TIMED), 0u);
    EXPECT_THAT(sent, ElementsAre(wide, wide.substr(0, 6), wide.substr(0, 4), wide, wide.substr(0, 4)));
    Restart("o");
    std::u16string url = u"/x";
    EXPECT_EQ(InternetSendRequest({}, 0, url, std::nullopt, nullptr, false), 13u);
    EXPECT_EQ(calls, Lines());
    OptionalText response;
    EXPECT_EQ(InternetSendRequest({}, 0, url, wide, &response, false), 0u);
    EXPECT_EQ(response, u"\u6b6f");
}

TEST_F(HttpTransaction, AFailedStepIsLoggedAndEverythingClosed) {
    agentState.gv_proxyEnabled = u"yes";
    agentState.gv_proxyServerName = u"127.0.0.1:1";
    agentState.gv_proxyExceptionAddr = u"127.0.0.1";
    agentState.gv_proxyUserName = u"user";
    const struct {
        std::string operation;
        std::string line;  // behind the routine's name
        const char* closed;
        Error result = 12004;
    } rows[] = {
        {"WinHttpOpen", " :  Error in WinHttpOpen --> 12004 \n", ""},
        {"WinHttpConnect", " :  Error in WinHttpConnect --> 12004 \n", "s"},
        {"WinHttpOpenRequest", " :  Error in WinHttpOpenRequest --> 12004 \n", "cs"},
        {"WinHttpAddRequestHeaders", " :  Error in WinHttpAddRequestHeaders --> 12004 \n", "rcs", 0},
        {"WinHttpSetOption", " :  Error in WinHttpSetOption --> 12004 \n", "rcs"},
        {"InternetSetOption", " :  Error in InternetSetOption --> 12004 \n", "rcs"},
        {"WinHttpSendRequest", " :  Error in WinHttpSendRequest -> 12004 \n", "rcs"},
        {"WinHttpQueryHeaders", " :  Error in WinHttpQueryHeaders --> 12004 \n", "rcs"},
        {"http status code",
         " : WinHttpQueryHeaders failed with the error code while getting http status code 12004 \n", "rcs"},
        {"WinHttpCloseHandle", " :  Error in WinHttpCloseHandle --> 12004 \n", "rcs", 0},
    };
    for (const auto& row : rows) {
        for (const bool post : {false, true}) {
            SCOPED_TRACE(row.operation + (post ? " POST" : " GET"));
            Restart("o");
            failing = row.operation;
            EXPECT_EQ(post ? Post("ab", 2, RequestKind::REQUEST_POST_TIMED) : Get(RequestKind::REQUEST_GET_TIMED),
                      row.result);
            EXPECT_TRUE(Logged((post ? "InternetSendRequestEx" : "InternetGetRequestEx") + row.line));
            EXPECT_EQ(closed, row.closed);
        }
    }
    EXPECT_TRUE(Logged("HttpGetLastError: An internal error has occurred.\n"));
    HttpGetLastError(12047);  // in a gap of the table
    EXPECT_TRUE(Logged("\t Error code : 12047, Error Message : "));
    failing.clear();
    Restart("o");
    std::u16string url = u"/x";
    EXPECT_EQ(InternetDownloadFile({}, 0, url, u"no\\such\\dir.bin", false), 6u);
    EXPECT_TRUE(Logged("InternetGetRequestEx :  Error in WriteFile --> 6 \n"));
}

TEST_F(HttpTransaction, HeadersFillTheState) {
    const auto expectState = [](int timeDiff) {
        EXPECT_EQ(agentState.gv_timeDiff, timeDiff);
        EXPECT_EQ(agentState.gv_agentKey.view(), u"K7");
        EXPECT_EQ(agentState.gv_agentRunFlag, 0);
        EXPECT_EQ(agentState.gv_SNMPTimeout.view(), u"9");
    };
    {
        platform::RegistryOperations full = platform::Registry();
        full.RegSetValueExW = [](auto&&...) { return platform::error::diskFull; };
        const platform::ScopedOperations<platform::RegistryOperations> without(full);
        ParseHeader(u"AgentKey: K7\r\n");  // stored with the next answer
    }
    ParseHeader(u"HTTP/1.1 200 OK\r\ntimeDiff: -90 more\r\nAgentKey: K7\r\nAgentRun: 0\r\nSNMPTimeout:   9\r\n");
    expectState(-90);
    OptionalText stored;
    EXPECT_EQ(GetOCAgentKey(stored), 0u);
    EXPECT_EQ(stored, u"K7");
    ParseHeader(u"TIMEDIFF: 5\r\nAgentKey: ..\\up\r\nAgentRun: yes\r\n");  // nothing here that can be taken
    expectState(-90);
    EXPECT_TRUE(Logged("\t ParseHeader() :: SubString returned NULL for timeDiff\n"));
    EXPECT_TRUE(Logged("\t WARNING!!!!!!!! ParseHeader() :: SubString returned NULL for SNMPTimeout\n"));
    const std::map<std::u16string, int> words = {{u"12x", 0}, {u"+7", 7}, {u"", 0}, {u"99999999999", 0}};
    for (const auto& [word, number] : words) {
        ParseHeader(u"timeDiff: " + word + u"\r\nSNMPTimeout: 1234567890\r\n");
        expectState(number);
    }
}

}  // namespace

}  // namespace kv::test

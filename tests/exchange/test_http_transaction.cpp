// The order of addresses, the rounds and the restart, against a transport that does as it is told.
#include <deque>
#include <fmt/printf.h>
#include <functional>
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

/// What one sending of a request meets.
struct Meeting {
    Error send = 0;
    Error receive = 0;
    std::uint32_t status = 200;
    std::string body = {};
};

/// Notes every operation; each sending takes the next meeting of the script, or the one of its address.
struct ScriptedTransport {
    std::deque<Meeting> script;
    std::map<std::u16string, Meeting> atAddress;
    std::map<std::string, Error> failing;  // operation -> error

    Lines calls;                            // operations with what they were given
    std::vector<std::u16string> addresses;  // in the order of the attempts
    std::map<HttpHandle, char> open;        // handle -> 's'ession, 'c'onnection, 'r'equest
    std::string closed;                     // kinds in the order of closing
    std::vector<std::string> sent;          // bodies

    platform::HttpOperations Operations();

  private:
    Error Note(const std::string& operation, const std::string& details = "") {
        calls.push_back(operation + details);
        const auto failure = failing.find(operation);
        return failure == failing.end() ? 0 : failure->second;
    }
    Error Open(const std::string& operation, const std::string& details, char kind, HttpHandle& handle) {
        if (const Error failure = Note(operation, details)) return failure;
        open[handle = ++last_] = kind;
        return 0;
    }
    Error Send(const std::byte* data, std::size_t size) {
        sent.emplace_back(reinterpret_cast<const char*>(data), size);
        answered_ = false;
        const auto row = atAddress.find(addresses.back());
        current_ = row == atAddress.end() ? Meeting{} : row->second;
        if (!script.empty()) {
            current_ = script.front();
            script.pop_front();
        }
        return Note("Send") + current_.send;
    }
    Error Receive() {
        answered_ = current_.receive == 0;
        return current_.receive;
    }

    HttpHandle last_ = 0;
    Meeting current_;
    bool answered_ = false;
};

platform::HttpOperations ScriptedTransport::Operations() {
    const auto hex = [](std::uint32_t number) { return fmt::sprintf(" 0x%x", number); };
    return {
        .WinHttpOpen =
            [this](auto agent, auto access, auto& name, auto& bypass, HttpHandle& session) {
                return Open("Open",
                            " " + platform::Utf8FromWide(agent) +
                                (access == platform::HttpProxyAccess::noProxy ? " 1" : " 3 ") +
                                platform::Utf8FromWide(name.value_or(u"")) + " " +
                                platform::Utf8FromWide(bypass.value_or(u"")),
                            's', session);
            },
        .WinHttpConnect =
            [this](HttpHandle, auto server, std::uint16_t port, HttpHandle& connection) {
                addresses.emplace_back(server);
                return Open("Connect", " " + std::to_string(port), 'c', connection);
            },
        .WinHttpOpenRequest =
            [this, hex](HttpHandle, auto verb, auto, auto types, std::uint32_t flags, HttpHandle& request) {
                return Open("OpenRequest",
                            " " + platform::Utf8FromWide(verb) + " " + platform::Utf8FromWide(types) + hex(flags), 'r',
                            request);
            },
        .WinHttpAddRequestHeaders =
            [this](HttpHandle, auto header) { return Note("AddHeaders", " " + platform::Utf8FromWide(header)); },
        .WinHttpSetOptionNumber =
            [this, hex](HttpHandle, auto option, std::uint32_t value) {
                return Note("SetOption", hex(static_cast<std::uint32_t>(option)) + hex(value));
            },
        .WinHttpSetOptionText =
            [this, hex](HttpHandle, auto option, auto value) {
                return Note("SetText", hex(static_cast<std::uint32_t>(option)) + " " + platform::Utf8FromWide(value));
            },
        .WinHttpQueryOption =
            [](HttpHandle, auto, std::uint32_t& value) {
                value = 1;
                return 0u;
            },
        .WinHttpSendRequest = [this](HttpHandle, auto data, std::size_t size) { return Send(data, size); },
        .WinHttpReceiveResponse = [this](HttpHandle) { return Receive(); },
        .WinHttpQueryHeadersText =
            [this](HttpHandle, auto, std::u16string& text) {
                text = u"HTTP/1.1 200 OK\r\ntimeDiff: 77\r\n\r\n";
                return answered_ ? Note("QueryHeaders") : 12019u;
            },
        .WinHttpQueryHeadersNumber =
            [this](HttpHandle, auto query, std::uint32_t& number) {
                const bool status = query == platform::HttpHeaderQuery::statusCodeNumber;
                number = status ? current_.status : static_cast<std::uint32_t>(current_.body.size());
                return Note(status ? "QueryStatus" : "QueryLength");
            },
        .WinHttpQueryDataAvailable =
            [this](HttpHandle, std::size_t& available) {
                available = std::min<std::size_t>(current_.body.size(), 3);
                return 0u;
            },
        .WinHttpReadData =
            [this](HttpHandle, std::byte* buffer, std::size_t size, std::size_t& read) {
                read = current_.body.copy(reinterpret_cast<char*>(buffer), size);
                current_.body.erase(0, read);
                return Note("ReadData", " " + std::to_string(size));
            },
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
        agentState.gv_httpsEnabled = 0;
        agentState.gv_ServerPort = 0x20000 + 8443;
    }

    static Error Get(RequestKind kind = RequestKind::REQUEST_GET, OptionalText* response = nullptr) {
        std::u16string url = u"/x";
        return AgentSendRequest({}, 0, url, {}, response, kind, 0, false);
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
    const Meeting ok, busy{.status = 503}, refused{.status = 407};
    const Meeting gone{.send = 12029}, lost{.send = 12007}, slow{.receive = 12002}, broken{.receive = 12030};
    using Addresses = std::vector<std::u16string>;
    const struct {
        const char* title;
        Meeting last, first, second, name, flat;
        Addresses tried;
        Error result;
        std::u16string remembered;
        Addresses missing = {};
    } rows[] = {
        {"the last one answers", ok, gone, gone, gone, gone, {u"last"}, 0, u"last"},
        {"a status at the last one is final", busy, ok, ok, ok, ok, {u"last"}, 13, u"last"},
        {"so is a proxy's refusal", refused, ok, ok, ok, ok, {u"last"}, 407, u"last"},
        {"and a broken connection", broken, ok, ok, ok, ok, {u"last"}, 12030, u"last"},
        {"the first one is remembered", gone, ok, gone, gone, gone, {u"last", u"first"}, 0, u"first"},
        {"from first to second any failure leads",
         lost,
         busy,
         ok,
         gone,
         gone,
         {u"last", u"first", u"second"},
         0,
         u"second"},
        {"a refusal too", slow, refused, ok, gone, gone, {u"last", u"first", u"second"}, 0, u"second"},
        {"from second on no status", gone, gone, busy, ok, ok, {u"last", u"first", u"second"}, 13, u"last"},
        {"to the name", gone, busy, slow, ok, gone, {u"last", u"first", u"second", u"name"}, 0, u"name"},
        {"a status at the name", gone, gone, gone, refused, ok, {u"last", u"first", u"second", u"name"}, 407, u"last"},
        {"to the end", gone, gone, gone, lost, ok, {u"last", u"first", u"second", u"name", u"flat"}, 0, u"flat"},
        {"and nobody there",
         gone,
         lost,
         slow,
         lost,
         gone,
         {u"last", u"first", u"second", u"name", u"flat"},
         12029,
         u"last"},
        {"a missing second keeps the first's status",
         gone,
         busy,
         ok,
         ok,
         ok,
         {u"last", u"first"},
         13,
         u"last",
         {u"second"}},
        {"a missing last counts as unresolved", ok, ok, gone, gone, gone, {u"first"}, 0, u"first", {u"last"}},
        {"none at all", ok, ok, ok, ok, ok, {}, 12007, u"", {u"last", u"first", u"second", u"name", u"flat"}},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.title);
        transport.addresses.clear();
        transport.atAddress = {{u"last", row.last},
                               {u"first", row.first},
                               {u"second", row.second},
                               {u"name", row.name},
                               {u"flat", row.flat}};
        const auto given = [&](std::u16string name) -> OptionalText {
            return std::ranges::find(row.missing, name) == row.missing.end() ? OptionalText(name) : u"ab";
        };
        agentState.gv_LastAccessName.publish(given(u"last") == u"ab" ? std::nullopt : given(u"last"));
        agentState.gv_ServerIPAddress = given(u"first");
        agentState.gv_ServerSecIPAddress = given(u"second");
        agentState.gv_ServerName = given(u"name");
        agentState.gv_ServerFlatName = given(u"flat");
        EXPECT_EQ(Get(), row.result);
        EXPECT_EQ(transport.addresses, row.tried);
        EXPECT_EQ(agentState.gv_LastAccessName.view(), row.remembered);
        EXPECT_THAT(transport.open, IsEmpty());
    }
}

TEST_F(HttpTransaction, ResendsInRoundsAndRestartsOnce) {
    agentState.gv_LastAccessName.publish(u"host");
    const Meeting ok{.body = "a"}, empty, resend{.receive = 12032}, login{.receive = 12015};
    const Meeting sendLogin{.send = 12015}, sendCancelled{.send = 12017}, cancelled{.receive = 12017};
    const struct {
        const char* title;
        std::deque<Meeting> script;
        Error getResult;
        Error postResult;
        std::size_t sendings;
        int seconds;
        bool restarted = false;
    } rows[] = {
        {"no trouble", {ok}, 0, 0, 1, 0},
        {"one round more", {resend, ok}, 0, 0, 2, 5},
        {"its code stands when nothing is received", {resend, empty}, 12032, 0, 2, 5},
        {"five rounds and no answer", {resend, resend, resend, resend, resend, ok}, 12019, 12019, 5, 25},
        {"login failure on receiving", {login, ok}, 0, 0, 2, 0, true},
        {"the restart leaves no code", {login, empty}, 0, 0, 2, 0, true},
        {"login failure on sending", {sendLogin, ok}, 0, 0, 2, 0, true},
        {"cancelled on sending", {sendCancelled, ok}, 0, 0, 2, 0, true},
        {"one restart only, on sending", {sendCancelled, sendLogin}, 12015, 12015, 2, 0, true},
        {"later login failures are rounds without pause", {login, login, login, ok}, 0, 0, 4, 0, true},
        {"and run out", {login, login, login, login, login, login, ok}, 12019, 12019, 6, 0, true},
        {"a restart begins the rounds anew",
         {resend, resend, resend, resend, login, resend, resend, resend, resend, ok},
         0,
         0,
         10,
         40,
         true},
        {"cancelled on receiving is final", {cancelled, ok}, 12017, 12017, 1, 0},
    };
    for (const auto& row : rows) {
        for (const bool post : {false, true}) {
            SCOPED_TRACE(row.title + std::string(post ? " POST" : " GET"));
            transport = {};
            transport.script = row.script;
            const std::int64_t start = clock.nowSeconds();
            EXPECT_EQ(post ? Post("abcd", 4) : Get(), post ? row.postResult : row.getResult);
            EXPECT_EQ(transport.sent.size(), row.sendings);
            EXPECT_EQ(clock.nowSeconds() - start, row.seconds);
            EXPECT_EQ(transport.closed, !row.restarted ? "rcs" : post ? "rrcs" : "rrcscs");
            EXPECT_THAT(transport.open, IsEmpty());
        }
    }
    EXPECT_TRUE(Logged("InternetGetRequestEx : Resending the data to the server host \n"));
    EXPECT_TRUE(
        Logged("InternetSendRequestEx : Going to close the request handle and going to resending the data to the "
               "server host \n"));
}

TEST_F(HttpTransaction, EachKindHasItsOptions) {
    agentState.gv_LastAccessName.publish(u"host");
    agentState.gv_httpsEnabled = 1;
    agentState.gv_proxyEnabled = u"Yes";
    agentState.gv_proxyServerName = u"proxy:80";
    agentState.gv_proxyUserName = u"us";
    agentState.gv_proxyPassword = u"pw";
    const std::string open = "Open TallowmereOnCallAgent 3 proxy:80 <local>";
    const auto options = [&](const Lines& more) {
        Lines lines{open, "Connect 8443"};
        lines.insert(lines.end(), more.begin(), more.end());
        return lines;
    };
    const std::string get = "OpenRequest GET */* 0x800100", post = "OpenRequest POST  0x800100";
    const std::string header = "AddHeaders Connection: Closed";
    const std::string user = "SetText 0x1002 us", password = "SetText 0x1003 pw";
    const struct {
        RequestKind kind;
        Lines expected;
    } rows[] = {
        {RequestKind::REQUEST_GET_TIMED,
         {get, header, "SetOption 0x3 0x7530", "SetOption 0x1f 0x3101", user, password}},
        {RequestKind::REQUEST_GET, {get, header, "SetOption 0x1f 0x3101", user, password}},
        {RequestKind::REQUEST_POST_TIMED,
         {post, header, "SetOption 0x3 0x7530", "SetOption 0x1f 0x3301", user, password}},
        {RequestKind::REQUEST_POST_BINARY, {post, header, "SetOption 0x1f 0x3301", user, password}},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(static_cast<int>(row.kind));
        transport = {};
        std::u16string url = u"/x";
        EXPECT_EQ(AgentSendRequest({}, 0, url, {.body = "abcd"}, nullptr, row.kind, 3, false), 0u);
        Lines calls(transport.calls.begin(), std::ranges::find(transport.calls, "Send"));
        EXPECT_EQ(calls, options(row.expected));
    }
    EXPECT_EQ(agentState.gv_timeDiff, 0);
    agentState.gv_proxyUserName = u"u";
    agentState.gv_httpsEnabled = 0;
    transport = {};
    EXPECT_EQ(Get(RequestKind::REQUEST_GET_HEADERS), 0u);
    EXPECT_EQ(agentState.gv_timeDiff, 77);
    agentState.gv_proxyEnabled = u"true";
    std::u16string url = u"a\\b";
    EXPECT_EQ(InternetDownloadFile({}, 0, url, u"to.bin", true), 0u);
    EXPECT_EQ(url, u"a/b");
    EXPECT_THAT(transport.calls,
                ElementsAre(open, "Connect 8443", "OpenRequest GET */* 0x100", header, "Send", "QueryHeaders",
                            "QueryStatus", "Close", "Close", "Close", "Open TallowmereOnCallAgent 1 ", "Connect 8443",
                            "OpenRequest GET */* 0x100", "AddHeaders Connection: keep-active", "Send", "QueryHeaders",
                            "QueryStatus", "ReadData 50", "Close", "Close", "Close"));
}

TEST_F(HttpTransaction, PostsSendWhatTheirKindCounts) {
    agentState.gv_LastAccessName.publish(u"host");
    const std::string wide("h\0a\0l\0f\0", 8);
    EXPECT_EQ(Post(wide, 8), 0u);
    EXPECT_EQ(Post(wide, 6), 0u);
    EXPECT_EQ(Post(wide, 0), 0u);
    EXPECT_EQ(Post(wide, 99), 0u);
    EXPECT_EQ(Post(wide, 8, RequestKind::REQUEST_POST_TIMED), 0u);
    EXPECT_THAT(transport.sent, ElementsAre(wide, wide.substr(0, 6), wide.substr(0, 4), wide, wide.substr(0, 4)));
    transport = {};
    std::u16string url = u"/x";
    EXPECT_EQ(InternetSendRequest({}, 0, url, std::nullopt, nullptr, false), 13u);
    EXPECT_THAT(transport.calls, IsEmpty());
    transport.script = {{.body = std::string("o\0k\0", 4)}};
    OptionalText response;
    EXPECT_EQ(InternetSendRequest({}, 0, url, wide, &response, false), 0u);
    EXPECT_EQ(response, u"ok");
}

TEST_F(HttpTransaction, AFailedStepIsLoggedAndEverythingClosed) {
    agentState.gv_LastAccessName.publish(u"host");
    agentState.gv_httpsEnabled = 1;
    agentState.gv_proxyEnabled = u"yes";
    agentState.gv_proxyUserName = u"user";
    const struct {
        const char* operation;
        const char* line;  // behind the routine's name
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
        for (const bool post : {false, true}) {
            SCOPED_TRACE(row.operation + std::string(post ? " POST" : " GET"));
            transport = {};
            transport.failing[row.operation] = 12004;
            EXPECT_EQ(post ? Post("ab", 2) : Get(), row.result);
            const bool named = post || std::string_view(row.operation) == "Connect";
            EXPECT_TRUE(Logged((named ? "InternetSendRequestEx" : "InternetGetRequestEx") + std::string(row.line)));
            EXPECT_EQ(transport.closed, row.closed);
        }
    }
    EXPECT_TRUE(Logged("HttpGetLastError: An internal error has occurred.\n"));
    transport = {};
    transport.script = {{.receive = 12030}, {.body = "ab"}, {.body = "ab"}};
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
    const auto parse = [](std::u16string_view lines) {
        return ParseHeader(u"HTTP/1.1 200 OK\r\n" + std::u16string(lines) + u"\r\n");
    };
    EXPECT_EQ(ParseHeader(std::nullopt), 0);
    EXPECT_EQ(parse(u"timeDiff: -90 more\r\nAgentKey: K7\r\nAgentRun: 0\r\nSNMPTimeout:   9\r\n"), 1);
    EXPECT_EQ(agentState.gv_timeDiff, -90);
    EXPECT_EQ(agentState.gv_agentKey.view(), u"K7");
    EXPECT_EQ(agentState.gv_agentRunFlag, 0);
    EXPECT_EQ(agentState.gv_SNMPTimeout.view(), u"9");
    OptionalText stored;
    EXPECT_EQ(GetOCAgentKey(stored), 0u);
    EXPECT_EQ(stored, u"K7");
    EXPECT_EQ(parse(u"TIMEDIFF: 5\r\n"), 1);
    EXPECT_EQ(agentState.gv_timeDiff, -90);
    EXPECT_EQ(agentState.gv_SNMPTimeout.view(), u"9");
    EXPECT_TRUE(Logged("\t ParseHeader() :: SubString returned NULL for timeDiff\n"));
    EXPECT_TRUE(Logged("\t WARNING!!!!!!!! ParseHeader() :: SubString returned NULL for SNMPTimeout\n"));
    for (const auto& [word, number] :
         {std::pair{u"12x", 0}, {u"+7", 7}, {u"", 0}, {u"99999999999", 0}, {u"-2147483648", INT32_MIN}}) {
        parse(u"timeDiff: " + std::u16string(word) + u"\r\n");
        EXPECT_EQ(agentState.gv_timeDiff, number);
    }
    parse(u"AgentKey: ..\\up\r\nAgentRun: yes\r\nSNMPTimeout: \r\n");
    EXPECT_EQ(agentState.gv_agentKey.view(), u"K7");
    EXPECT_EQ(agentState.gv_agentRunFlag, 0);
    EXPECT_NE(agentState.gv_SNMPTimeout.get(), nullptr);
    EXPECT_EQ(agentState.gv_SNMPTimeout.view(), u"");
}

TEST_F(HttpAnswers, ErrorsAreExplained) {
    HttpGetLastError(12002);
    EXPECT_TRUE(Logged("HttpGetLastError: The request has timed out.\n"));
    HttpGetLastError(12183);
    EXPECT_TRUE(
        Logged("HttpGetLastError: The WinHTTP function failed. The desired function can be retried on the same "
               "request handle \n"));
    for (const Error code : {5u, 12000u, 12047u, 12184u, 12185u}) {
        HttpGetLastError(code);
        EXPECT_TRUE(Logged("\t Error code : " + std::to_string(code) + ", Error Message : "));
    }
}

}  // namespace

}  // namespace kv::test

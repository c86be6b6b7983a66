// What a server sends, through the transport up to the agent's transactions: status lines, headers, bodies, redirects
// from connection to connection, early ends.
//
// The first byte picks the transaction (bits 0 to 2), a server that answers before it has read anything (bit 3), a
// proxy (bit 4), TLS, which the server does not speak (bit 5), and keepAlive (bit 6). The rest is what is sent. These
// bytes in it stand for something else:
//
//   19 x  20,000 times x
//   1A    what follows is sent a step later
//   1B    the end of the answer: the server ends its sending; the next connection gets what follows
//   1C    the same, and the connection stays open, silent
//   1D    the same, and it is reset
//   1E    the same, and it is closed, as it is at the end of the input
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "foundation/file_utils.h"
#include "fuzz/scratch_agent.h"
#include "fuzz/scripted_server.h"
#include "http/http_transaction.h"
#include "platform/clock.h"

namespace {

using namespace kv;
using fuzz::ScriptedAnswer;

constexpr std::size_t longestAnswer = 600'000;  // above each of the transport's limits
constexpr std::size_t repetitions = 20'000;
constexpr std::size_t mediumBody = 15'000;  // all of it may be on its way before the server's system has taken it
constexpr std::size_t largeBody = 150'000;  // not so this one

void Require(bool holds) {
    if (!holds) __builtin_trap();
}

std::vector<ScriptedAnswer> AnswersIn(std::string_view script) {
    std::vector<ScriptedAnswer> answers(1);
    answers[0].pieces.emplace_back();
    std::size_t length = 0;
    for (std::size_t at = 0; at < script.size() && length < longestAnswer; ++at) {
        ScriptedAnswer& answer = answers.back();
        if (script[at] == '\x19' && at + 1 < script.size()) {
            answer.pieces.back().append(repetitions, script[++at]);
            length += repetitions;
        } else if (script[at] == '\x1a') {
            answer.pieces.emplace_back();
        } else if (script[at] >= '\x1b' && script[at] <= '\x1e') {
            using Ending = ScriptedAnswer::Ending;
            constexpr Ending endings[] = {Ending::endsSending, Ending::holds, Ending::resets, Ending::closes};
            answer.ending = endings[script[at] - '\x1b'];
            answers.emplace_back().pieces.emplace_back();
            length = 0;
        } else {
            answer.pieces.back() += script[at];
            ++length;
        }
    }
    return answers;
}

fuzz::ScriptedServer& Server() {
    static fuzz::ScriptedServer server;
    return server;
}

/// The clock's waits take no time either.
void InstallClock() {
    platform::CurrentOperations<platform::ClockOperations>().Sleep = [](std::uint32_t milliseconds) {
        fuzz::skippedMilliseconds += milliseconds;
    };
}

void SetState(std::uint8_t options) {
    agentState.gv_LastAccessName.Publish(u"127.0.0.1");
    agentState.gv_ServerPort = Server().port;
    agentState.gv_httpsEnabled = (options & 0x20) != 0 ? 1 : 0;
    agentState.gv_proxyEnabled = (options & 0x10) != 0 ? u"yes" : u"no";
    agentState.gv_proxyServerName = u"127.0.0.1:" + DecimalText(Server().port);
    agentState.gv_proxyExceptionAddr = u"";
    agentState.gv_proxyUserName = u"user";
    agentState.gv_proxyPassword = u"password";
}

/// What a transaction that ended with success has received.
platform::Error Get(RequestKind kind, bool keepAlive) {
    std::u16string url = u"/servlets/x?agentKey=1";
    OptionalText response;
    const platform::Error result = AgentSendRequest({}, 0, url, {}, &response, kind, 0, keepAlive);
    Require(response.value_or(u"").size() <= Server().sent);
    return result;
}

platform::Error Download(bool keepAlive) {
    std::u16string url = u"/conf/1/queryconf.zip";
    const platform::Error result = InternetDownloadFile({}, 0, url, u"download", keepAlive);
    std::string stored;
    Require(ReadWholeFile(u"download", stored) == platform::error::success && stored.size() <= Server().sent);
    return result;
}

/// A body counts as accepted only when all of it has come to the server's system.
platform::Error Post(std::size_t size, OptionalText* response, bool keepAlive) {
    std::u16string url = u"/servlets/FileCollector?AGENTKEY=1&FILENAME=a.zip";
    const std::string body(size, 'b');
    const platform::Error result =
        AgentSendRequest({}, 0, url, {.body = body}, response, RequestKind::REQUEST_POST_BINARY, size, keepAlive);
    Server().CountUnread();
    Require(result != platform::error::success || Server().receivedBody() >= size);
    return result;
}

platform::Error Transact(std::uint8_t options) {
    const bool keepAlive = (options & 0x40) != 0;
    OptionalText response;
    switch (options & 7) {
        case 1:
            return Get(RequestKind::REQUEST_GET_HEADERS, keepAlive);
        case 2:
            return Download(keepAlive);
        case 3:
            return Get(RequestKind::REQUEST_GET_STATUS, keepAlive);
        case 4:
            return Post(10, &response, keepAlive);
        case 5:
            return Post(largeBody, nullptr, keepAlive);
        case 6:
            return Post(mediumBody, nullptr, keepAlive);
        default:
            return Get(RequestKind::REQUEST_GET_TIMED, keepAlive);
    }
}

/// What the server may set is something that the agent can work with.
void LookAtState() {
    const std::u16string_view key = agentState.gv_agentKey.view();
    Require(!key.empty() && key.size() <= 64 && key != u"." && key != u"..");
    Require(key.find_first_of(u"\\/:*?\"<>|&#%+ \t\r\n") == std::u16string_view::npos);
    const std::u16string_view timeout = agentState.gv_SNMPTimeout.view();
    Require(timeout.size() <= 9 && timeout.find_first_not_of(u"0123456789") == std::u16string_view::npos);
    Require(agentState.gv_agentRunFlag <= 1);
}

/// The lowest number that a descriptor gets: another one after a transaction has left some open.
int NextDescriptor() {
    const int next = dup(0);
    close(next);
    return next;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const fuzz::ScratchAgent agent;
    static const bool clockInstalled = (InstallClock(), true);
    if (!clockInstalled || size == 0) return 0;
    const fuzz::InBin inBin(agent);
    SetState(data[0]);
    Server().Begin(AnswersIn({reinterpret_cast<const char*>(data) + 1, size - 1}), (data[0] & 8) != 0,
                   (data[0] & 0x80) != 0);
    fuzz::scriptedServer = &Server();
    const int descriptor = NextDescriptor();
    Transact(data[0]);
    Server().Reset();
    fuzz::scriptedServer = nullptr;
    Require(NextDescriptor() == descriptor);
    LookAtState();
    return 0;
}

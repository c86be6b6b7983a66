// What kvagentctl check says of the server's addresses.
#include <fmt/format.h>
#include <optional>
#include <vector>

#include "foundation/agent_state.h"
#include "foundation/time_utils.h"
#include "http/http_answers.h"
#include "http/http_transaction.h"
#include "http/server_certificate.h"
#include "http/server_probe.h"
#include "platform/messages.h"
#include "platform/sockets.h"
#include "platform/utf.h"
#include "tools/kvagentctl/agent_process.h"
#include "tools/kvagentctl/check/check_parts.h"
#include "tools/kvagentctl/connection.h"
#include "tools/kvagentctl/server_text.h"

namespace kv::control {

namespace {

using platform::Utf8FromWide;

constexpr std::int64_t soon =
    std::int64_t{30} * 24 * 3600;  // seconds before a certificate's end that deserve a warning

/// What an address came to. Texts are UTF-8.
struct Tried {
    platform::Error result = platform::error::winHttpNameNotResolved;  // as AgentSendRequest would have it
    std::string told;                                                  // what there is to know of it
    std::string doubt;    // what is odd about an answer that is not refused
    std::string problem;  // why the agent cannot use it
    std::string next;     // what to look at because of doubt or problem
};

std::string NextStep(platform::Error failure) {
    switch (failure) {
        case platform::error::winHttpCannotConnect:
        case platform::error::winHttpTimeout:
            return "does the server run, is the port right, does a firewall let it through?";
        case platform::error::winHttpSecureChannelError:
            return "is the port a TLS port, as KVServerProtocol says?";
        case platform::error::winHttpSecureFailure:
            return agentState.gv_httpsEnabled != 0 ? "kvagentctl pin shows the certificate"
                                                   : "kvagentctl setup --protocol https --port PORT";
        case 407:
            return "a password that the service manager keeps as a credential is not tried here";
        default:
            return "";
    }
}

bool UsesProxy() { return CompareIgnoreCase(agentState.gv_proxyEnabled, u"yes") == 0; }

/// The address that a name leads to, or false with a problem. Behind a proxy, names are the proxy's to look up.
bool LookUp(const std::string& name, Tried& tried) {
    if (IsAddress(name) || UsesProxy()) return true;
    platform::HostEntry host;
    if (const platform::Error failure = platform::Sockets().gethostbyname(name, host)) {
        tried.problem =
            fmt::format("the name cannot be looked up: {} (error {})", platform::MessageInLine(failure), failure);
        return false;
    }
    tried.told = host.address + ", ";
    return true;
}

/// "the pinned key", "not verified" and the like.
std::string JudgedBy(const ServerCertificate& shown) {
    std::string judged;
    if (shown.keyProblem && shown.keyProblem->empty()) judged += ", it has the pinned key";
    if (shown.caFileProblem && shown.caFileProblem->empty()) judged += ", KVServerCAFile vouches for it";
    if (shown.systemProblem && shown.systemProblem->empty()) judged += ", the system vouches for it";
    return judged.empty() ? ", not verified" : judged;
}

/// A certificate that the settings refuse is a problem, and so is a server without one.
bool LookAtCertificate(Findings& findings, const std::string& where, const ServerAddress& address, Tried& tried) {
    if (agentState.gv_httpsEnabled == 0) return true;
    ServerCertificate shown;
    std::string reason;
    tried.result = FetchServerCertificate(address.text, agentState.gv_ServerPort, shown, reason);
    if (const platform::Error failure = tried.result) {
        tried.problem = fmt::format("{} (error {})", reason, failure);
        tried.next = NextStep(failure);
        return false;
    }
    const platform::HttpCertificate& certificate = shown.certificate;
    tried.told += fmt::format("certificate {}, issued by {}, until {}{}, ", certificate.subject, certificate.issuer,
                              UtcText(certificate.validUntil), JudgedBy(shown));
    const std::int64_t now = GetNowSeconds();
    if (certificate.validUntil < now)
        findings.Warn(where, "the certificate expired at " + UtcText(certificate.validUntil));
    else if (certificate.validUntil < now + soon)
        findings.Warn(where, "the certificate expires at " + UtcText(certificate.validUntil));
    return true;
}

/// The attempt's own line says why, behind the name of its routine.
std::string FailureText(const std::vector<std::string>& lines, platform::Error failure) {
    constexpr std::string_view mark = " : connect to ";
    if (const std::string& refusal = agentState.gv_serverTrust.refusal; !refusal.empty())
        return "nothing is sent, because " + refusal;
    for (const std::string& line : lines) {
        if (const std::size_t at = line.find(mark); at != std::string::npos) {
            const std::string text = line.substr(at + mark.find('c'));
            return fmt::format("{} (error {})", text.substr(0, text.find_last_not_of(" \n") + 1), failure);
        }
    }
    return TransactionFailure(failure);
}

void JudgeRedirect(const ServerAnswer& answer, Tried& tried) {
    const bool isSecure = agentState.gv_httpsEnabled != 0;
    const std::u16string target = platform::WideFromUtf8(answer.location);
    const std::string text =
        fmt::format("it answers GET / with a redirect (HTTP status {}) to {}", answer.status, answer.location);
    tried.next = "set the server that answers itself: kvagentctl setup --server SERVER";
    if (isSecure && CompareIgnoreCase(target.substr(0, 5), u"http:") == 0) {
        tried.problem = text + ", which the agent does not follow, because it leads out of TLS";
        tried.result = platform::error::invalidData;
    } else {
        tried.doubt = text + (answer.status < 307 ? ": the agent follows it when it asks, but not when it sends data"
                                                  : ": the agent follows it, in every request again");
    }
}

/// What a status for "/" says of the requests to come. A server need not have a page there.
void JudgeStatus(const ServerAnswer& answer, Tried& tried) {
    constexpr std::uint32_t proxyRefusal = 407;
    constexpr std::uint32_t notFound = 404;
    constexpr std::uint32_t notAllowed = 405;
    const std::uint32_t status = answer.status;
    const std::string text = fmt::format("it answers GET / with HTTP status {}", status);
    if (status == proxyRefusal && UsesProxy()) {
        tried.result = status;
        tried.problem = text + ": the proxy refused the user or the password; see ProxyUserName and ProxyPassword";
        tried.next = NextStep(status);
    } else if (status >= 500) {
        tried.result = platform::error::invalidData;
        tried.problem = text + ", which is its failure";
        tried.next = "look into the log of the server, or of what stands before it";
    } else if (status / 100 == 3 && !answer.location.empty()) {
        JudgeRedirect(answer, tried);
    } else if (status / 100 == 2 || status == notFound || status == notAllowed) {
        tried.told += text;
    } else {
        tried.doubt = text;
        tried.next = "is it the server of the agents? They send it neither user nor password";
    }
}

Tried Try(Findings& findings, const std::string& where, const ServerAddress& address) {
    Tried tried;
    std::vector<std::string> lines;
    const LogLines log([&](std::string_view line) { lines.emplace_back(line); });
    if (!LookUp(Utf8FromWide(address.text), tried) || !LookAtCertificate(findings, where, address, tried)) return tried;
    ServerAnswer answer;
    tried.result = ProbeServer(address.text, agentState.gv_ServerPort, answer);
    if (tried.result == platform::error::success) {
        JudgeStatus(answer, tried);
    } else {
        tried.problem = FailureText(lines, tried.result);
        tried.next = NextStep(tried.result);
        if (tried.result == platform::error::winHttpSecureFailure) tried.told.clear();  // the problem tells it, too
    }
    return tried;
}

/// Where the agent's way through the addresses ends, in their order.
struct Way {
    std::size_t end = 0;    // the index of the address that it stays at; their number when all fail
    bool isServed = false;  // that address answers
};

Way WayThrough(const std::vector<ServerAddress>& addresses, const std::vector<Tried>& tried) {
    Way way;
    for (; way.end < addresses.size(); ++way.end) {
        const platform::Error result = tried[way.end].result;
        const bool isFirstIp = addresses[way.end].settings.starts_with("KVServerIPAddress");
        way.isServed = result == platform::error::success;
        if (!LeadsToNextAddress(result, isFirstIp)) break;
    }
    return way;
}

std::string PlaceOf(const ServerAddress& address) {
    return fmt::format("server {}:{} ({})", Utf8FromWide(address.text), agentState.gv_ServerPort, address.settings);
}

/// A server that the agent cannot use. It matters less while the agent gets to another, unless it is another server
/// than it should be.
Finding FailureAt(std::size_t index, const Way& way, const std::vector<ServerAddress>& addresses, const Tried& tried) {
    const bool isHarmless = way.isServed && tried.result != platform::error::winHttpSecureFailure;
    const bool isLast = index + 1 == addresses.size();
    std::string problem = tried.told + tried.problem;
    if (!isLast && index < way.end) problem += "; the agent goes on to the next address";
    if (!isLast && index == way.end) problem += "; the agent tries no other address then";
    return {isHarmless ? Severity::warning : Severity::error, PlaceOf(addresses[index]), problem, tried.next};
}

void Report(Findings& findings, const std::vector<ServerAddress>& addresses, const std::vector<Tried>& tried) {
    const Way way = WayThrough(addresses, tried);
    for (std::size_t i = 0; i < addresses.size(); ++i) {
        const std::string where = PlaceOf(addresses[i]);
        const bool isUnreached = !way.isServed && i > way.end;
        if (!tried[i].problem.empty())
            findings.list.push_back(FailureAt(i, way, addresses, tried[i]));
        else if (!tried[i].doubt.empty())
            findings.Warn(where, tried[i].told + tried[i].doubt, tried[i].next);
        else
            findings.Note(where, tried[i].told);
        if (tried[i].problem.empty() && isUnreached)
            findings.Warn(where, "the agent does not come here: it gives up at " + PlaceOf(addresses[way.end]));
    }
}

}  // namespace

void CheckServer(Findings& findings) {
    const bool isConnectable = ReadConnection();
    const std::vector<ServerAddress> addresses = isConnectable ? ServerAddresses() : std::vector<ServerAddress>();
    if (addresses.empty()) {
        findings.Error("server", "nothing to try: no address or no port is set", "kvagentctl setup --server SERVER");
        return;
    }
    std::vector<Tried> tried;
    tried.reserve(addresses.size());
    for (const ServerAddress& address : addresses) tried.push_back(Try(findings, PlaceOf(address), address));
    Report(findings, addresses, tried);
}

}  // namespace kv::control

// What kvagentctl check says of the server's addresses.
#include <algorithm>
#include <fmt/format.h>
#include <iterator>
#include <optional>
#include <vector>

#include "foundation/agent_state.h"
#include "foundation/registry_store.h"
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

bool UsesProxy() { return CompareIgnoreCase(agentState.gv_proxyEnabled, u"yes") == 0; }

/// The setting of trust that cannot be used; empty when each one can.
std::string UnusableTrust() {
    const std::string& refusal = agentState.gv_serverTrust.refusal;
    return refusal.substr(0, refusal.find(' '));
}

/// Failures of a way on which something else may answer than was meant.
bool IsOfTheWay(platform::Error failure) {
    constexpr platform::Error failures[] = {platform::error::winHttpTimeout,
                                            platform::error::winHttpNameNotResolved,
                                            platform::error::winHttpCannotConnect,
                                            platform::error::winHttpConnectionError,
                                            platform::error::winHttpInvalidServerResponse,
                                            platform::error::winHttpHeaderSizeOverflow,
                                            platform::error::winHttpSecureChannelError};
    return std::find(std::begin(failures), std::end(failures), failure) != std::end(failures);
}

std::string NextStepOfTrust() {
    if (const std::string setting = UnusableTrust(); !setting.empty())
        return fmt::format("correct the setting, or do without it: kvreg delete \"{}\" {}",
                           Utf8FromWide(serverInfoKeyPath), setting);
    return agentState.gv_httpsEnabled != 0
               ? "kvagentctl pin shows the certificate: compare it with what the server's administrator says"
               : "kvagentctl setup --protocol https --port PORT";
}

std::string NextStep(platform::Error failure) {
    if (UsesProxy() && IsOfTheWay(failure))
        return "does the proxy run, is ProxyServerName right (without a port it means port 80), does the server run?";
    switch (failure) {
        case platform::error::winHttpCannotConnect:
        case platform::error::winHttpTimeout:
            return "does the server run, is the port right, does a firewall let it through?";
        case platform::error::winHttpSecureChannelError:
            return "is the port a TLS port, as KVServerProtocol says?";
        case platform::error::winHttpConnectionError:
            return agentState.gv_httpsEnabled != 0
                       ? "is the port a TLS port? If it is, the server's log says why it ends connections"
                       : "is the port a TLS port? Then kvagentctl setup --protocol https; else see the server's log";
        case platform::error::winHttpInvalidServerResponse:
        case platform::error::winHttpHeaderSizeOverflow:
            return "another service than a web server seems to answer: is the port right?";
        case platform::error::winHttpSecureFailure:
            return NextStepOfTrust();
        case 407:
            return "a password that the service manager keeps as a credential is not tried here";
        default:
            return "";
    }
}

/// Names the proxy behind a failure that may be its own.
std::string WithProxy(const std::string& text, platform::Error failure) {
    if (!UsesProxy() || !IsOfTheWay(failure)) return text;
    const std::string proxy = Utf8FromWide(agentState.gv_proxyServerName.value_or(u""));
    return text.find("through proxy") != std::string::npos ? text : fmt::format("{}, by the proxy {}", text, proxy);
}

/// The address that a name leads to, or false with a problem. Behind a proxy, names are the proxy's to look up.
bool LookUp(const std::string& name, Tried& tried) {
    if (IsAddress(name) || UsesProxy()) return true;
    platform::HostEntry host;
    if (const platform::Error failure = platform::Sockets().gethostbyname(name, host)) {
        tried.problem =
            fmt::format("the name cannot be looked up: {} (error {})", platform::MessageInLine(failure), failure);
        tried.next = "is the name right, and does the name server of this computer know it?";
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

/// Dates count only with authorities. A pinned key holds beyond them.
void CheckDates(Findings& findings, const std::string& where, const platform::HttpCertificate& certificate) {
    const std::int64_t now = GetNowSeconds();
    if (certificate.validUntil >= now + soon) return;
    const ServerTrust& trust = agentState.gv_serverTrust;
    const std::string text =
        fmt::format("the certificate {} at {}", certificate.validUntil < now ? "expired" : "expires",
                    UtcText(certificate.validUntil));
    if (trust.caFile || trust.systemAuthorities)
        findings.Warn(where, text, "ask the server's administrator for a new one");
    else
        findings.Note(where, text + (trust.pinnedKeys.empty() ? "; it is not verified, so this stops nothing"
                                                              : "; only its key counts, so this stops nothing"));
}

/// A certificate that the settings refuse is a problem, and so is a server without one.
bool LookAtCertificate(Findings& findings, const std::string& where, const ServerAddress& address, Tried& tried) {
    if (agentState.gv_httpsEnabled == 0) return true;
    ServerCertificate shown;
    std::string reason;
    tried.result = FetchServerCertificate(address.text, agentState.gv_ServerPort, shown, reason);
    if (const platform::Error failure = tried.result) {
        tried.problem = WithProxy(fmt::format("{} (error {})", reason, failure), failure);
        tried.next = NextStep(failure);
        return false;
    }
    const platform::HttpCertificate& certificate = shown.certificate;
    tried.told += fmt::format("certificate {}, issued by {}, until {}{}, ", certificate.subject, certificate.issuer,
                              UtcText(certificate.validUntil), JudgedBy(shown));
    CheckDates(findings, where, certificate);
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

/// The scheme of a redirect's target, with its colon; empty when the target is relative.
std::u16string_view SchemeOf(std::u16string_view location) {
    const std::size_t end = location.find_first_of(u":/?#");
    return end != std::u16string_view::npos && location[end] == u':' ? location.substr(0, end + 1) : u"";
}

/// Whether a redirect of "/" leads to "/" at the same address again.
bool LeadsToItself(const ServerAddress& address, std::u16string_view location) {
    const bool isSecure = agentState.gv_httpsEnabled != 0;
    const std::string host = Utf8FromWide(address.text);
    const std::string authority =
        host.find(':') == std::string::npos || host.starts_with('[') ? host : "[" + host + "]";
    std::vector<std::string> places{fmt::format("{}:{}", authority, agentState.gv_ServerPort)};
    if (agentState.gv_ServerPort == (isSecure ? 443 : 80)) places.push_back(authority);
    std::u16string_view rest = location.substr(SchemeOf(location).size());
    if (rest.ends_with(u'/')) rest.remove_suffix(1);
    if (rest.empty() && SchemeOf(location).empty()) return true;
    const bool isSameScheme =
        SchemeOf(location).empty() || CompareIgnoreCase(SchemeOf(location), isSecure ? u"https:" : u"http:") == 0;
    return isSameScheme && std::any_of(places.begin(), places.end(), [rest](const std::string& place) {
               return CompareIgnoreCase(rest, platform::WideFromUtf8("//" + place)) == 0;
           });
}

/// Why the agent does not get to the target of a redirect; empty when it goes there.
std::string RedirectFault(const ServerAddress& address, std::u16string_view location) {
    const std::u16string_view scheme = SchemeOf(location);
    const bool isPlain = CompareIgnoreCase(scheme, u"http:") == 0;
    if (!scheme.empty() && !isPlain && CompareIgnoreCase(scheme, u"https:") != 0)
        return ", which the agent does not follow, because it is neither http nor https";
    if (isPlain && agentState.gv_httpsEnabled != 0)
        return ", which the agent does not follow, because it leads out of TLS";
    return LeadsToItself(address, location) ? ", which leads back to itself: the agent gives up after ten of them" : "";
}

void JudgeRedirect(const ServerAddress& address, const ServerAnswer& answer, Tried& tried) {
    const std::string text =
        fmt::format("it answers GET / with a redirect (HTTP status {}) to {}", answer.status, answer.location);
    tried.next = "set the server that answers itself: kvagentctl setup --server SERVER";
    if (const std::string fault = RedirectFault(address, platform::WideFromUtf8(answer.location)); !fault.empty()) {
        tried.problem = text + fault;
        tried.result = platform::error::invalidData;
    } else {
        tried.doubt = text + (answer.status < 307 ? ": the agent follows it when it asks, but not when it sends data"
                                                  : ": the agent follows it, in every request again");
    }
}

/// What a status for "/" says of the requests to come. A server need not have a page there.
void JudgeStatus(const ServerAddress& address, const ServerAnswer& answer, Tried& tried) {
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
        JudgeRedirect(address, answer, tried);
    } else if (status / 100 == 3) {
        tried.doubt = text + ", a redirect that does not say where to";
        tried.next = "look into the settings of the server, or of what stands before it";
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
        JudgeStatus(address, answer, tried);
    } else {
        tried.problem = WithProxy(FailureText(lines, tried.result), tried.result);
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

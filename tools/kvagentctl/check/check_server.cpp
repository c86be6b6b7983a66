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
#include "platform/http_rules.h"
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

/// What one place came to. Texts are UTF-8.
struct Tried {
    std::string where;
    platform::Error result = platform::error::winHttpNameNotResolved;  // as AgentSendRequest would have it
    std::string told;                                                  // what there is to know of it
    std::string doubt;                       // what is odd about an answer that is not refused
    std::string problem;                     // why the agent cannot use it
    std::string next;                        // what to look at because of doubt or problem
    std::optional<ServerPlace> target = {};  // where the agent goes on to, for good or ill
};

/// An address, and where redirects lead from it.
using Trail = std::vector<Tried>;

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

std::string NextStepOfTrust(bool isSecure) {
    if (const std::string setting = UnusableTrust(); !setting.empty())
        return fmt::format("correct the setting, or do without it: kvreg delete \"{}\" {}",
                           Utf8FromWide(serverInfoKeyPath), setting);
    return isSecure ? "kvagentctl pin shows the certificate: compare it with what the server's administrator says"
                    : "kvagentctl setup --protocol https --port PORT";
}

std::string NextStep(platform::Error failure, bool isSecure) {
    if (UsesProxy() && IsOfTheWay(failure))
        return "does the proxy run, is ProxyServerName right (without a port it means port 80), does the server run?";
    switch (failure) {
        case platform::error::winHttpCannotConnect:
        case platform::error::winHttpTimeout:
            return "does the server run, is the port right, does a firewall let it through?";
        case platform::error::winHttpSecureChannelError:
            return "is the port a TLS port, as KVServerProtocol says?";
        case platform::error::winHttpConnectionError:
            return isSecure
                       ? "is the port a TLS port? If it is, the server's log says why it ends connections"
                       : "is the port a TLS port? Then kvagentctl setup --protocol https; else see the server's log";
        case platform::error::winHttpInvalidServerResponse:
        case platform::error::winHttpHeaderSizeOverflow:
            return "another service than a web server seems to answer: is the port right?";
        case platform::error::winHttpSecureFailure:
            return NextStepOfTrust(isSecure);
        case 407:
            return "a password that the service manager keeps as a credential is not tried here";
        default:
            return "";
    }
}

/// Names the proxy behind a failure that may be its own.
std::string WithProxy(const std::string& text, platform::Error failure) {
    if (!UsesProxy() || !IsOfTheWay(failure)) return text;
    return text.find("through proxy") != std::string::npos ? text
                                                           : fmt::format("{}, by the proxy {}", text, ProxyName());
}

/// The address that a name leads to, or false with a problem. Behind a proxy, names are the proxy's to look up.
bool LookUp(const std::string& name, Tried& tried) {
    if (name.starts_with('[') || IsAddress(name) || UsesProxy()) return true;
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
    else if (!trust.refusal.empty())
        findings.Note(where, text);
    else
        findings.Note(where, text + (trust.pinnedKeys.empty() ? "; it is not verified, so this stops nothing"
                                                              : "; only its key counts, so this stops nothing"));
}

/// A certificate that the settings refuse is a problem, and so is a server without one.
bool LookAtCertificate(Findings& findings, const ServerPlace& place, Tried& tried) {
    if (!place.secure) return true;
    ServerCertificate shown;
    std::string reason;
    tried.result = FetchServerCertificate(place.host, place.port, shown, reason);
    // What a proxy says in the place of the server is the answer to a request.
    if (UsesProxy() && tried.result == platform::error::winHttpConnectionError) return true;
    if (const platform::Error failure = tried.result) {
        tried.problem = WithProxy(fmt::format("{} (error {})", reason, failure), failure);
        tried.next = NextStep(failure, place.secure);
        return false;
    }
    const platform::HttpCertificate& certificate = shown.certificate;
    tried.told += fmt::format("certificate {}, issued by {}, until {}{}, ", certificate.subject, certificate.issuer,
                              UtcText(certificate.validUntil), JudgedBy(shown));
    CheckDates(findings, tried.where, certificate);
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

/// Why the agent does not get to the target of a redirect; empty when it goes there.
std::string RedirectFault(const std::vector<ServerPlace>& places, const std::optional<ServerPlace>& target) {
    if (!target) return ", which the agent does not follow, because it is not an http or https URL";
    if (places.back().secure && !target->secure)
        return ", which the agent does not follow, because it leads out of TLS";
    const std::string givesUp = fmt::format("the agent gives up after {} of them", platform::maxRedirects);
    if (*target == places.back()) return ", which leads back to itself: " + givesUp;
    if (std::find(places.begin(), places.end(), *target) != places.end())
        return ", where it has been before: " + givesUp;
    return places.size() > std::size_t{platform::maxRedirects} ? ", one more redirect: " + givesUp : "";
}

void JudgeRedirect(const std::vector<ServerPlace>& places, const ServerAnswer& answer, Tried& tried) {
    const std::string text = fmt::format("it answers GET {} with a redirect (HTTP status {}) to {}",
                                         Utf8FromWide(places.back().path), answer.status, answer.location);
    const std::optional<ServerPlace> target = RedirectedPlace(places.back(), answer.location);
    if (places.size() == 1) tried.next = "set the server that answers itself: kvagentctl setup --server SERVER";
    if (const std::string fault = RedirectFault(places, target); !fault.empty()) {
        tried.problem = text + fault;
        const bool isUnfollowed = !target || (places.back().secure && !target->secure);
        tried.result = isUnfollowed ? platform::error::invalidData : platform::error::winHttpRedirectFailed;
    } else {
        tried.doubt = text + (answer.status < 307 ? ": the agent follows it when it asks, but not when it sends data"
                                                  : ": the agent follows it, in every request again");
        tried.target = target;
    }
}

/// An answer that a proxy has given in the place of the server.
void JudgeProxyAnswer(std::uint32_t status, Tried& tried) {
    const bool isOfTheWay = status >= 502 && status <= 504;
    tried.result = platform::error::invalidData;
    tried.problem = fmt::format("the proxy {} itself answers with HTTP status {}, and does not lead to the server",
                                ProxyName(), status);
    tried.next = isOfTheWay
                     ? "does the proxy know this name, and does the server run? The proxy's log says what it tried"
                     : "does the proxy let this computer through to this server and port? Its log says why not";
}

/// Of whom a failure may be that was answered over a plain way.
std::string BlamedFor(const ServerAnswer& answer) {
    if (answer.answerer != Answerer::either) return "its failure";
    const bool hasBypass = !agentState.gv_proxyExceptionAddr.value_or(u"").empty();
    return fmt::format("a failure of the proxy {} or of the server behind it{}", ProxyName(),
                       hasBypass ? " (of the server, if ProxyByPass has it)" : "");
}

/// What a status for "/" says of the requests to come. A server need not have a page there.
void JudgeStatus(const std::vector<ServerPlace>& places, const ServerAnswer& answer, Tried& tried) {
    constexpr std::uint32_t proxyRefusal = 407;
    constexpr std::uint32_t notFound = 404;
    constexpr std::uint32_t notAllowed = 405;
    const std::uint32_t status = answer.status;
    const bool mayBeProxy = answer.answerer == Answerer::either;
    const std::string text =
        fmt::format("it answers GET {} with HTTP status {}", Utf8FromWide(places.back().path), status);
    if (status == proxyRefusal && UsesProxy()) {
        tried.result = status;
        tried.problem = text + ": the proxy refused the user or the password; see ProxyUserName and ProxyPassword";
        tried.next = NextStep(status, places.back().secure);
    } else if (answer.answerer == Answerer::proxy) {
        JudgeProxyAnswer(status, tried);
    } else if (status >= 500) {
        tried.result = platform::error::invalidData;
        tried.problem = text + ", which is " + BlamedFor(answer);
        tried.next = mayBeProxy ? "does the proxy know this name, and does the server run? The logs of both say more"
                                : "look into the log of the server, or of what stands before it";
    } else if (IsRedirect(answer)) {
        JudgeRedirect(places, answer, tried);
    } else if (status / 100 == 3) {
        tried.doubt = text + (answer.location.empty() ? ", a redirect that does not say where to"
                                                      : ", which the agent does not follow to " + answer.location);
        tried.next = "look into the settings of the server, or of what stands before it";
    } else if (status / 100 == 2 || status == notFound || status == notAllowed) {
        tried.told += text;
    } else {
        tried.doubt =
            text + (mayBeProxy ? fmt::format(", from the proxy {} or the server behind it", ProxyName()) : "");
        tried.next = mayBeProxy ? "does the proxy let this computer through, and is it the server of the agents?"
                                : "is it the server of the agents? They send it neither user nor password";
    }
}

/// Tries the last of the places, to which the others have led.
void Try(Findings& findings, const std::vector<ServerPlace>& places, Tried& tried) {
    const ServerPlace& place = places.back();
    std::vector<std::string> lines;
    const LogLines log([&](std::string_view line) { lines.emplace_back(line); });
    if (!LookUp(Utf8FromWide(place.host), tried) || !LookAtCertificate(findings, place, tried)) return;
    ServerAnswer answer;
    lines.clear();
    tried.result = ProbeServer(place, answer);
    if (tried.result == platform::error::success) {
        JudgeStatus(places, answer, tried);
    } else {
        tried.problem = WithProxy(FailureText(lines, tried.result), tried.result);
        tried.next = NextStep(tried.result, place.secure);
        if (tried.result != platform::error::winHttpSecureFailure) return;
        tried.told.clear();  // the problem tells it, too
        if (places.size() > 1 && UnusableTrust().empty())
            tried.next =
                fmt::format("kvagentctl pin --add --dry-run --address {}:{} shows the certificate of this server",
                            Utf8FromWide(place.host), place.port);
    }
}

std::string PlaceOf(const ServerAddress& address) {
    return fmt::format("server {}:{} ({})", Utf8FromWide(address.text), agentState.gv_ServerPort, address.settings);
}

/// Follows redirects as the agent does, and looks at each place on the way.
Trail Follow(Findings& findings, const ServerAddress& address) {
    std::vector<ServerPlace> places{
        {.secure = agentState.gv_httpsEnabled != 0, .host = address.text, .port = agentState.gv_ServerPort}};
    Trail trail(1);
    trail.back().where = PlaceOf(address);
    Try(findings, places, trail.back());
    while (const std::optional<ServerPlace> target = trail.back().target) {
        places.push_back(*target);
        trail.emplace_back().where = fmt::format("redirect of {}:{} to {}", Utf8FromWide(address.text),
                                                 agentState.gv_ServerPort, UrlOf(*target));
        Try(findings, places, trail.back());
    }
    return trail;
}

/// Where the agent's way through the addresses ends, in their order.
struct Way {
    std::size_t end = 0;    // the index of the address that it stays at; their number when all fail
    bool isServed = false;  // that address answers
};

Way WayThrough(const std::vector<ServerAddress>& addresses, const std::vector<Trail>& trails) {
    Way way;
    for (; way.end < addresses.size(); ++way.end) {
        const platform::Error result = trails[way.end].back().result;
        const bool isFirstIp = addresses[way.end].settings.starts_with("KVServerIPAddress");
        way.isServed = result == platform::error::success;
        if (!LeadsToNextAddress(result, isFirstIp)) break;
    }
    return way;
}

/// A server that the agent cannot use. It matters less while the agent gets to another, unless it is another server
/// than it should be.
Finding FailureAt(std::size_t index, const Way& way, std::size_t addressCount, const Tried& tried) {
    const bool isHarmless = way.isServed && tried.result != platform::error::winHttpSecureFailure;
    const bool isLast = index + 1 == addressCount;
    std::string problem = tried.told + tried.problem;
    if (!isLast && index < way.end) problem += "; the agent goes on to the next address";
    if (!isLast && index == way.end) problem += "; the agent tries no other address then";
    return {isHarmless ? Severity::warning : Severity::error, tried.where, problem, tried.next};
}

void Report(Findings& findings, const std::vector<ServerAddress>& addresses, const std::vector<Trail>& trails) {
    const Way way = WayThrough(addresses, trails);
    for (std::size_t i = 0; i < addresses.size(); ++i) {
        for (const Tried& tried : trails[i]) {
            if (!tried.problem.empty())
                findings.list.push_back(FailureAt(i, way, addresses.size(), tried));
            else if (!tried.doubt.empty())
                findings.Warn(tried.where, tried.told + tried.doubt, tried.next);
            else
                findings.Note(tried.where, tried.told);
        }
        const bool isUnreached = !way.isServed && i > way.end;
        if (trails[i].back().problem.empty() && isUnreached)
            findings.Warn(PlaceOf(addresses[i]),
                          "the agent does not come here: it gives up at " + PlaceOf(addresses[way.end]));
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
    std::vector<Trail> trails;
    trails.reserve(addresses.size());
    for (const ServerAddress& address : addresses) trails.push_back(Follow(findings, address));
    Report(findings, addresses, trails);
}

}  // namespace kv::control

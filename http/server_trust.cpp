#include "http/server_trust.h"

#include <fmt/format.h>
#include <mutex>
#include <utility>

#include "foundation/agent_state.h"
#include "foundation/log.h"
#include "http/server_certificate.h"
#include "platform/messages.h"
#include "platform/utf.h"

namespace kv {

namespace {

using platform::Error;
using platform::HttpPresentedCertificate;
namespace error = platform::error;

/// Servers whose certificates are remembered, at most; an agent has five addresses, and redirects lead elsewhere.
constexpr std::size_t mostServers = 100;

/// Why a certificate was refused; empty when it passed.
std::string Problem(const HttpPresentedCertificate& presented) {
    std::string text;
    for (const auto* problem : {&presented.keyProblem, &presented.authoritiesProblem, &presented.systemProblem}) {
        if (!problem->value_or("").empty()) text += (text.empty() ? "" : "; ") + **problem;
    }
    return text;
}

/// By what a certificate that passed was verified.
std::string Verification(const HttpPresentedCertificate& presented) {
    std::string by;
    const auto add = [&by](const std::optional<std::string>& check, const char* name) {
        if (check) by += (by.empty() ? "verified by " : " and ") + std::string(name);
    };
    add(presented.keyProblem, "its pinned key");
    add(presented.authoritiesProblem, "the CA file");
    add(presented.systemProblem, "the system's authorities");
    return by.empty() ? "not verified" : by;
}

/// What the settings expect.
std::string Expectation() {
    const ServerTrust& trust = agentState.gv_serverTrust;
    std::string text;
    const auto add = [&text](const std::string& more) { text += (text.empty() ? "" : "; ") + more; };
    if (!trust.pinnedKeys.empty()) add(fmt::format("key {}", fmt::join(trust.pinnedKeys, " or ")));
    if (trust.caFile) add("issued by an authority of " + platform::Utf8FromWide(*trust.caFile));
    if (trust.systemAuthorities) add("issued by an authority that the system trusts");
    return text;
}

std::string Described(const HttpPresentedCertificate& presented) {
    platform::HttpCertificate certificate;
    if (platform::Http().ReadCertificate(presented.der, certificate)) return "a certificate that cannot be read";
    return fmt::format("subject [{}], issuer [{}], SHA-256 {}, key {}, valid until {}", certificate.subject,
                       certificate.issuer, certificate.fingerprint, certificate.keyPin,
                       UtcText(certificate.validUntil));
}

/// Whether a server is met for the first time, or shows another certificate than the last time; remembers it.
enum class Meeting { first, changed, known };
Meeting Remember(const HttpPresentedCertificate& presented) {
    const std::lock_guard lock(agentState.gv_certificatesMutex);
    auto& known = agentState.gv_certificates;
    const auto former = known.find(presented.server);
    if (former != known.end() && former->second == presented.der) return Meeting::known;
    const Meeting meeting = former == known.end() ? Meeting::first : Meeting::changed;
    if (known.size() >= mostServers) known.clear();
    known[presented.server] = presented.der;
    return meeting;
}

/// Address and port as one text.
std::string AddressText(const TransactionTarget& target) {
    const std::string server = platform::Utf8FromWide(target.server);
    const bool bare = server.find(':') != std::string::npos && !server.starts_with('[');
    return (bare ? "[" + server + "]" : server) + ":" + std::to_string(target.port & 0xffff);
}

std::string ProxyText(const TransactionTarget& target) {
    if (!target.useProxy) return "no proxy";
    const std::string bypass = platform::Utf8FromWide(target.proxyBypass.value_or(u""));
    return "proxy " + platform::Utf8FromWide(target.proxyName.value_or(u"")) +
           (bypass.empty() ? "" : " (not for " + bypass + ")");
}

}  // namespace

std::string FailureReason(Error failure, const std::string& reason) {
    std::string text = reason.empty() ? platform::MessageInLine(failure) : reason;
    text.erase(text.find_last_not_of(" .") + 1);
    return text.empty() ? "error " + std::to_string(failure) : text;
}

platform::HttpServerTrust AskedTrust() {
    const ServerTrust& trust = agentState.gv_serverTrust;
    platform::HttpServerTrust asked;
    asked.pinnedKeys = trust.pinnedKeys;
    asked.systemAuthorities = trust.systemAuthorities;
    if (trust.caFile) asked.authorities = trust.authorities;
    return asked;
}

Error RefuseToSend(const char* routine, const TransactionTarget& target) {
    const ServerTrust& trust = agentState.gv_serverTrust;
    if (!trust.refusal.empty()) {
        Log1("%s : nothing is sent to %s: %s\n", routine, AddressText(target), trust.refusal);
    } else if (trust.asksForCertificate() && !target.secure) {
        Log1(
            "%s : nothing is sent to %s: KVServerProtocol is http, which has no certificate, and one is asked for: "
            "%s\n",
            routine, AddressText(target), Expectation());
    } else {
        return error::success;
    }
    return error::winHttpSecureFailure;
}

void NoteCertificates(const std::vector<HttpPresentedCertificate>& presented) {
    for (const HttpPresentedCertificate& one : presented) {
        if (!Problem(one).empty()) continue;
        const Meeting meeting = Remember(one);
        if (meeting == Meeting::known) continue;
        Log1("The server %s shows %s: %s; %s\n", one.server,
             meeting == Meeting::first ? "this certificate" : "another certificate than before", Described(one),
             Verification(one));
    }
}

void LogFailedAddress(const char* routine, const TransactionTarget& target, Error failure, const std::string& reason,
                      const std::vector<HttpPresentedCertificate>& presented) {
    const std::string problem = presented.empty() ? "" : Problem(presented.back());
    if (problem.empty()) {
        Log1("%s : connect to %s through %s: %s\n", routine, AddressText(target), ProxyText(target),
             FailureReason(failure, reason));
    } else {
        const HttpPresentedCertificate& refused = presented.back();
        Log1(
            "%s : connect to %s through %s: the certificate of %s is refused, and nothing was sent to it: %s. "
            "Expected: %s. Shown: %s\n",
            routine, AddressText(target), ProxyText(target), refused.server, problem, Expectation(),
            Described(refused));
    }
}

}  // namespace kv

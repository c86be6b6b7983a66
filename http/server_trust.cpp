#include "http/server_trust.h"

#include <algorithm>
#include <fmt/format.h>
#include <iterator>
#include <mutex>
#include <optional>
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

/// Servers whose certificates are remembered, at most; an agent has four addresses, and redirects lead elsewhere.
constexpr std::size_t mostServers = 100;

/// Bytes of a name in a certificate that a log line shows, at most: a stranger chooses how long it is.
constexpr std::size_t mostNameBytes = 256;

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

/// A name of a certificate, cut between two characters when it is long.
std::string ShownName(const std::string& name) {
    if (name.size() <= mostNameBytes) return name;
    std::size_t end = mostNameBytes;
    while (end > 0 && (static_cast<unsigned char>(name[end]) & 0xc0) == 0x80) --end;
    return name.substr(0, end) + "...";
}

/// The fields stay empty when it cannot be read.
platform::HttpCertificate CertificateOf(const HttpPresentedCertificate& presented) {
    platform::HttpCertificate certificate;
    if (platform::Http().ReadCertificate(presented.der, certificate)) certificate = {};
    return certificate;
}

std::string Described(const platform::HttpCertificate& certificate) {
    if (certificate.fingerprint.empty()) return "a certificate that cannot be read";
    return fmt::format("subject [{}], issuer [{}], SHA-256 {}, key {}, valid until {}", ShownName(certificate.subject),
                       ShownName(certificate.issuer), certificate.fingerprint, certificate.keyPin,
                       UtcText(certificate.validUntil));
}

/// Address and port as one text.
std::string AddressText(const TransactionTarget& target) {
    const std::string server = platform::Utf8FromWide(target.server);
    const bool bare = server.find(':') != std::string::npos && server.find_first_of("[/") == std::string::npos;
    return (bare ? "[" + server + "]" : server) + ":" + std::to_string(target.port & 0xffff);
}

/// A list of proxies without the user and password that may stand before an "@".
std::string WithoutCredentials(std::string list) {
    for (std::size_t at = list.rfind('@'); at != std::string::npos; at = list.rfind('@')) {
        const std::size_t before = list.find_last_of("; \t", at);
        const std::size_t begin = before == std::string::npos ? 0 : before + 1;
        list.erase(begin, at + 1 - begin);
    }
    return list;
}

/// Whether "host:port" is one of the addresses that the settings give.
bool IsOwnAddress(const std::string& server) {
    const OptionalText* const addresses[] = {&agentState.gv_ServerName, &agentState.gv_ServerFlatName,
                                             &agentState.gv_ServerIPAddress, &agentState.gv_ServerSecIPAddress};
    return std::any_of(std::begin(addresses), std::end(addresses), [&server](const OptionalText* address) {
        const std::string own = AddressText(TargetAt(address->value_or(u""), agentState.gv_ServerPort));
        return CompareIgnoreCase(platform::WideFromUtf8(own), platform::WideFromUtf8(server)) == 0;
    });
}

/// The fingerprint that a server showed before; null when it is not remembered.
std::optional<std::string> KnownFingerprint(const std::string& server) {
    const std::lock_guard lock(agentState.gv_certificatesMutex);
    const auto known = agentState.gv_certificates.find(server);
    return known == agentState.gv_certificates.end() ? std::nullopt : std::optional(known->second);
}

/// Remembers a fingerprint, if need be in place of a server that a redirect led to.
void Remember(const std::string& server, const std::string& fingerprint) {
    const std::lock_guard lock(agentState.gv_certificatesMutex);
    auto& known = agentState.gv_certificates;
    if (known.size() >= mostServers && !known.contains(server)) {
        const auto other =
            std::find_if(known.begin(), known.end(), [](const auto& one) { return !IsOwnAddress(one.first); });
        if (other != known.end()) known.erase(other);
    }
    known[server] = fingerprint;
}

}  // namespace

std::string ProxyText(const TransactionTarget& target) {
    if (!target.useProxy) return "no proxy";
    const std::string bypass = platform::Utf8FromWide(target.proxyBypass.value_or(u""));
    return "proxy " + WithoutCredentials(platform::Utf8FromWide(target.proxyName.value_or(u""))) +
           (bypass.empty() ? "" : " (not for " + bypass + ")");
}

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

std::string ReasonToSendNothing(bool secure) {
    const ServerTrust& trust = agentState.gv_serverTrust;
    if (!trust.refusal.empty()) return trust.refusal;
    if (secure || !trust.asksForCertificate()) return "";
    return "KVServerProtocol is http, which has no certificate, and one is asked for: " + Expectation();
}

Error RefuseToSend(const char* routine, const TransactionTarget& target) {
    const std::string reason = ReasonToSendNothing(target.secure);
    if (reason.empty()) return error::success;
    Log1("%s : nothing is sent to %s: %s\n", routine, AddressText(target), reason);
    return error::winHttpSecureFailure;
}

void NoteCertificates(const std::vector<HttpPresentedCertificate>& presented) {
    for (const HttpPresentedCertificate& one : presented) {
        if (!Problem(one).empty()) continue;
        const platform::HttpCertificate certificate = CertificateOf(one);
        const std::optional<std::string> known = KnownFingerprint(one.server);
        if (known == certificate.fingerprint) continue;
        Log1("The server %s shows %s: %s; %s\n", one.server,
             known ? "another certificate than before" : "this certificate", Described(certificate), Verification(one));
        Remember(one.server, certificate.fingerprint);
    }
}

void LogFailedAddress(const char* routine, const TransactionTarget& target, Error failure, const std::string& reason,
                      const std::vector<HttpPresentedCertificate>& presented) {
    const std::string problem = presented.empty() ? "" : Problem(presented.back());
    if (problem.empty()) {
        // A reason may quote the proxy with its password.
        const bool isSecret = target.useProxy && reason.find('@') != std::string::npos;
        Log1("%s : connect to %s through %s: %s\n", routine, AddressText(target), ProxyText(target),
             FailureReason(failure, isSecret ? "" : reason));
    } else {
        const HttpPresentedCertificate& refused = presented.back();
        Log1(
            "%s : connect to %s through %s: the certificate of %s is refused, and nothing was sent to it: %s. "
            "Expected: %s. Shown: %s\n",
            routine, AddressText(target), ProxyText(target), refused.server, problem, Expectation(),
            Described(CertificateOf(refused)));
    }
}

}  // namespace kv

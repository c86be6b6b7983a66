// What kvagentctl check says of the server's addresses.
#include <fmt/format.h>
#include <optional>
#include <vector>

#include "foundation/agent_state.h"
#include "foundation/time_utils.h"
#include "http/http_answers.h"
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

/// What an address came to.
struct Tried {
    bool answers = false;
    std::string problem;  // UTF-8; why it does not
    std::string next;     // what to look at then
    std::string told;     // what there is to know of one that does
};

std::string NextStep(platform::Error failure) {
    switch (failure) {
        case platform::error::winHttpCannotConnect:
        case platform::error::winHttpTimeout:
            return "does the server run, is the port right, does a firewall let it through?";
        case platform::error::winHttpSecureChannelError:
            return "is the port a TLS port, as KVServerProtocol says?";
        case platform::error::winHttpSecureFailure:
            return "kvagentctl pin shows the certificate";
        case 407:
            return "ProxyUserName and ProxyPassword";
        default:
            return "";
    }
}

/// The address that a name leads to, or false with a problem. Behind a proxy, names are the proxy's to look up.
bool LookUp(const std::string& name, Tried& tried) {
    if (IsAddress(name) || CompareIgnoreCase(agentState.gv_proxyEnabled, u"yes") == 0) return true;
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
    if (const platform::Error failure = FetchServerCertificate(address.text, agentState.gv_ServerPort, shown, reason)) {
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

Tried Try(Findings& findings, const std::string& where, const ServerAddress& address) {
    Tried tried;
    std::vector<std::string> lines;
    const LogLines log([&](std::string_view line) { lines.emplace_back(line); });
    if (!LookUp(Utf8FromWide(address.text), tried) || !LookAtCertificate(findings, where, address, tried)) return tried;
    std::uint32_t status = 0;
    const platform::Error failure = ProbeServer(address.text, agentState.gv_ServerPort, status);
    tried.answers = failure == platform::error::success;
    if (tried.answers)
        tried.told += fmt::format("it answers GET / with HTTP status {}", status);
    else
        tried.problem = FailureText(lines, failure);
    if (!tried.answers) tried.next = NextStep(failure);
    return tried;
}

}  // namespace

void CheckServer(Findings& findings) {
    const bool isConnectable = ReadConnection();
    const std::vector<ServerAddress> addresses = isConnectable ? ServerAddresses() : std::vector<ServerAddress>();
    if (addresses.empty()) {
        findings.Error("server", "nothing to try: no address or no port is set", "kvagentctl setup --server SERVER");
        return;
    }
    std::vector<Finding> failures;
    for (const ServerAddress& address : addresses) {
        const std::string where =
            fmt::format("server {}:{} ({})", Utf8FromWide(address.text), agentState.gv_ServerPort, address.settings);
        const Tried tried = Try(findings, where, address);
        if (tried.answers)
            findings.Note(where, tried.told);
        else
            failures.push_back({Severity::error, where, tried.problem, tried.next});
    }
    // One that does not answer matters less while another does.
    for (Finding& failure : failures) {
        if (failures.size() < addresses.size()) failure.severity = Severity::warning;
        findings.list.push_back(std::move(failure));
    }
}

}  // namespace kv::control

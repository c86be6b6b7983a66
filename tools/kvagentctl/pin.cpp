// kvagentctl pin: shows the server's certificate and stores its key as the only one that the agent sends to.
#include <algorithm>
#include <fmt/format.h>
#include <optional>
#include <string>
#include <vector>

#include "commandline/confirm.h"
#include "commandline/run.h"
#include "foundation/agent_settings.h"
#include "foundation/agent_state.h"
#include "foundation/registry_failure.h"
#include "foundation/registry_store.h"
#include "http/server_certificate.h"
#include "platform/console_tool.h"
#include "platform/utf.h"
#include "tools/kvagentctl/agent_process.h"
#include "tools/kvagentctl/connection.h"
#include "tools/kvagentctl/output.h"
#include "tools/kvagentctl/server_text.h"
#include "tools/kvagentctl/verbs.h"
#include "tools/kvreg/registry_tree.h"

namespace kv::control {

namespace {

using commandline::Given;
using commandline::Has;
using platform::Utf8FromWide;
using platform::WideFromUtf8;

constexpr const char* setting = "KVServerPinnedKey";

std::vector<std::u16string> StoredAddresses() {
    std::vector<std::u16string> addresses;
    for (const ServerAddress& address : ServerAddresses()) addresses.push_back(address.text);
    return addresses;
}

/// Where to look for the certificate: --address, or what the settings say. The port comes from the settings unless the
/// address has one.
std::vector<std::u16string> AddressesToTry(const Given& given, bool hasPort) {
    if (!Has(given, "--address")) {
        std::vector<std::u16string> addresses = StoredAddresses();
        if (addresses.empty() || !hasPort)
            throw commandline::NotFoundError(
                "no server is set: kvagentctl setup --server SERVER, or give one with --address HOST:PORT");
        return addresses;
    }
    RefuseCredentials(given, "--address");
    const ServerText server = ParseServerText(commandline::NeededValue(given, "--address"));
    if (!server.problem.empty()) throw commandline::UsageError("--address " + server.problem);
    const std::string fault =
        SettingFault(*FindAgentSetting(serverInfoKeyPath, u"KVServerName"), WideFromUtf8(server.host));
    if (!fault.empty()) throw commandline::UsageError("--address " + fault);
    if (server.protocol == "http") throw commandline::UsageError("--address is http, which has no certificate");
    if (!server.port.empty()) agentState.gv_ServerPort = ParseDecimal(WideFromUtf8(server.port));
    if (server.port.empty() && !hasPort)
        throw commandline::UsageError("--address has no port, and none is set: give HOST:PORT");
    if (agentState.gv_ServerPort < 1 || agentState.gv_ServerPort > 65535)
        throw commandline::UsageError("--address takes a port number from 1 to 65535, not '" + server.port + "'");
    return {WideFromUtf8(server.host)};
}

/// What one address shows; a failure is told, unless it is quiet.
platform::Error Look(const std::u16string& address, ServerCertificate& shown, bool isQuiet = false) {
    const LogLines silence([](std::string_view) {});
    std::string reason;
    const platform::Error failure = FetchServerCertificate(address, agentState.gv_ServerPort, shown, reason);
    if (failure != platform::error::success && !isQuiet)
        fmt::print(stderr, "kvagentctl: {} port {}: {} (error {})\n", commandline::InLine(Utf8FromWide(address)),
                   agentState.gv_ServerPort, commandline::InLine(reason), failure);
    return failure;
}

/// The first certificate that an address shows. The addresses up to that one are taken out of the list.
ServerCertificate Fetch(std::vector<std::u16string>& addresses) {
    platform::Error failure = platform::error::success;
    while (!addresses.empty()) {
        ServerCertificate shown;
        failure = Look(addresses.front(), shown);
        addresses.erase(addresses.begin());
        if (failure == platform::error::success) return shown;
    }
    if (failure == 407) throw std::runtime_error("no certificate can be seen before the proxy lets a request through");
    const std::string proxy =
        UsesProxy() ? fmt::format(" Does the proxy {} run, and does it lead there?", ProxyName()) : "";
    throw std::runtime_error("no address shows a certificate: is the port a TLS port, and does the server run?" +
                             proxy);
}

/// The agent goes to other addresses than the one that was looked at, and sends nothing to a key that is not stored.
/// Those that show no certificate are told, unless they are all quiet. keys: as the setting will be.
void WarnOfOtherKeys(const std::vector<std::u16string>& others, bool areQuiet, const std::string& keys) {
    for (const std::u16string& address : others) {
        ServerCertificate shown;
        // A name that is not known leads to no other server.
        const bool isQuiet = areQuiet || !IsAddress(Utf8FromWide(address));
        if (Look(address, shown, isQuiet) != platform::error::success) continue;
        if (keys.find(shown.certificate.keyPin) != std::string::npos) continue;
        fmt::print(stderr,
                   "kvagentctl: warning: {} shows another key ({}), and the agent will send nothing there; if it is "
                   "right, too: kvagentctl pin --add --address {}\n",
                   commandline::InLine(shown.server), shown.certificate.keyPin, commandline::InLine(shown.server));
    }
}

/// "yes", or why not; null when the check was not made.
Cell Verdict(const std::optional<std::string>& problem) {
    if (!problem) return std::nullopt;
    return problem->empty() ? "yes" : "no: " + *problem;
}

/// The setting as it is, whether or not the agent can use it; empty when it is absent. ReadConnection has seen that the
/// registry can be read.
std::string StoredSetting() {
    RegFileValue value;
    const platform::Error result = ReadValue(serverInfoKeyPath, WideFromUtf8(setting), value);
    const bool isText = result == platform::error::success && value.type == platform::RegistryType::text;
    return isText ? Utf8FromWide(TextOfData(value.data)) : "";
}

/// Whether the shown key is the stored one, or what keeps the setting from holding one.
Cell StoredVerdict(const ServerCertificate& shown, const std::string& before) {
    const bool isUsable = before.empty() || !agentState.gv_serverTrust.refusal.starts_with(setting);
    return isUsable ? Verdict(shown.keyProblem) : Cell("no: stored is '" + before + "', which is not a key");
}

/// Whether --add would keep something.
bool HasStoredKeys() { return !agentState.gv_serverTrust.pinnedKeys.empty(); }

/// The setting as it will be: the key, with --add behind those that are there. Absent when it is there already.
std::optional<std::string> NewSetting(const Given& given, const std::string& key) {
    const ServerTrust& trust = agentState.gv_serverTrust;
    const bool isKnown = std::find(trust.pinnedKeys.begin(), trust.pinnedKeys.end(), key) != trust.pinnedKeys.end();
    if (!Has(given, "--add")) return isKnown && trust.pinnedKeys.size() == 1 ? std::nullopt : std::optional(key);
    if (trust.refusal.starts_with(setting))
        throw std::runtime_error(trust.refusal + "; correct it, or leave --add out");
    if (isKnown) return std::nullopt;
    return fmt::format("{}{}{}", fmt::join(trust.pinnedKeys, ";"), trust.pinnedKeys.empty() ? "" : ";", key);
}

void Store(const std::string& keys) {
    const RegFileValue value{
        .name = WideFromUtf8(setting), .type = platform::RegistryType::text, .data = DataOfText(WideFromUtf8(keys))};
    if (const platform::Error failure = WriteValue(serverInfoKeyPath, value))
        throw std::runtime_error(
            fmt::format("{} cannot be stored: {}; nothing was stored", setting, RegistryFailureText(failure)));
}

/// What became of the setting.
struct Outcome {
    bool isStored = false;
    std::string before;  // what the new text stands in the place of; empty when nothing was there
};

/// Prints the certificate; the outcome goes into JSON.
void Show(const ServerCertificate& shown, Form form, const Outcome& outcome) {
    const platform::HttpCertificate& certificate = shown.certificate;
    const bool asJson = form == Form::json;
    Table table{{}, {{}}};
    const auto add = [&](const char* name, const char* jsonName, Cell cell) {
        table.columns.emplace_back(asJson ? jsonName : name);
        table.rows[0].push_back(std::move(cell));
    };
    add("server", "server", shown.server);
    if (UsesProxy()) add("through the proxy", "proxy", ProxyName());
    add("subject", "subject", certificate.subject);
    add("issuer", "issuer", certificate.issuer);
    add("names", "names", fmt::format("{}", fmt::join(certificate.names, ", ")));
    add("valid from", "validFrom", UtcText(certificate.validFrom));
    add("valid until", "validUntil", UtcText(certificate.validUntil));
    add("SHA-256", "sha256", certificate.fingerprint);
    add("key", "key", certificate.keyPin);
    add("is the stored key", "isStoredKey", StoredVerdict(shown, outcome.before));
    add("verified by the CA file", "verifiedByCAFile", Verdict(shown.caFileProblem));
    add("verified by the system", "verifiedBySystem", Verdict(shown.systemProblem));
    if (asJson) {
        add("", "stored", Cell::Literal(outcome.isStored ? "true" : "false"));
        add("", "storedBefore", outcome.before.empty() ? Cell(std::nullopt) : Cell(outcome.before));
    }
    fmt::print("{}", Printed(table, form));
    commandline::FlushOutput();
}

/// Asks, unless --yes has answered.
void Confirm(const Given& given, const std::string& before) {
    if (Has(given, "--yes")) return;
    const bool replaces = !before.empty() && !Has(given, "--add");
    fmt::print(stderr, "Compare SHA-256 or key with what the server's administrator tells you by another way.\n");
    if (replaces)
        fmt::print(stderr, "Stored is {}{}.\n", commandline::InLine(before),
                   HasStoredKeys() ? "; --add keeps that" : ", which is not a key");
    if (!commandline::Confirmed(replaces ? "Store this key in the place of the stored one?" : "Store this key?"))
        throw std::runtime_error("nothing was stored");
}

/// What became of the setting, for people. keys: as it is to be; absent when it is so already.
void TellOutcome(const Given& given, const std::optional<std::string>& keys, const Outcome& outcome) {
    const std::string before = commandline::InLine(outcome.before);
    const bool replaces = !before.empty() && !Has(given, "--add");
    if (!keys) {
        fmt::print("\nThis key is stored already; nothing was changed.\n");
    } else if (!outcome.isStored) {
        fmt::print("\nNothing was stored, because of --dry-run.\n");
        if (replaces)
            fmt::print("Stored is {}; this key would take its place{}.\n", before,
                       HasStoredKeys() ? ", and --add keeps that" : "");
    } else {
        fmt::print("\nStored: {} = {}\n", setting, *keys);
        if (replaces) fmt::print("Before: {}{}\n", before, HasStoredKeys() ? " (--add would have kept it)" : "");
        fmt::print("The agent takes it at its next start: {}\n", platform::ServiceRestartCommand());
    }
}

void RunPin(const Given& given) {
    const bool hasPort = ReadConnection();
    if (agentState.gv_httpsEnabled == 0)
        throw std::runtime_error(
            "KVServerProtocol is not https, so the server shows no certificate, and with a pinned key the agent would "
            "send nothing: kvagentctl setup --protocol https --port PORT");
    const std::int32_t storedPort = agentState.gv_ServerPort;
    std::vector<std::u16string> addresses = AddressesToTry(given, hasPort);
    const ServerCertificate shown = Fetch(addresses);
    if (Has(given, "--address") && hasPort) {  // the server that the agent goes to may be another one
        agentState.gv_ServerPort = storedPort;
        addresses = StoredAddresses();
    }
    const std::optional<std::string> keys = NewSetting(given, shown.certificate.keyPin);
    const bool asJson = Has(given, "--json");
    const bool isDry = Has(given, "--dry-run") || (asJson && !Has(given, "--yes"));
    Outcome outcome{.before = StoredSetting()};
    if (!asJson) Show(shown, Form::line, outcome);
    WarnOfOtherKeys(addresses, Has(given, "--address"),
                    keys.value_or(fmt::format("{}", fmt::join(agentState.gv_serverTrust.pinnedKeys, ";"))));
    if (keys && !isDry) {
        Confirm(given, outcome.before);
        Store(*keys);
        outcome.isStored = true;
    }
    if (asJson)
        Show(shown, Form::json, outcome);
    else
        TellOutcome(given, keys, outcome);
}

}  // namespace

const commandline::Command& PinVerb() {
    static constexpr commandline::Option options[] = {
        {"--address", "SERVER", "where to look, as HOST or HOST:PORT; default: the server's addresses in their order"},
        {"--add", "", "keeps the keys that are stored, for a server that is about to get a new one"},
        {"--yes", "", "stores the key without a question"},
        {"--dry-run", "", "shows the certificate and stores nothing"},
        {"--json", "", "prints the certificate as JSON, and stores its key only with --yes"}};
    static constexpr commandline::Command verb{
        "pin",
        "Shows the server's certificate and, after a yes, stores its key as KVServerPinnedKey: from its next start on "
        "the agent sends nothing to a server with another key. No request goes to the server.",
        {},
        options,
        RunPin};
    return verb;
}

}  // namespace kv::control

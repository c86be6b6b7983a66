// kvagentctl setup: the server's settings in one line, checked before any is stored.
#include <algorithm>
#include <cstdio>
#include <fmt/format.h>
#include <stdexcept>
#include <string>
#include <vector>

#include "commandline/run.h"
#include "foundation/agent_settings.h"
#include "foundation/host_text.h"
#include "foundation/registry_failure.h"
#include "foundation/registry_store.h"
#include "foundation/text.h"
#include "platform/console_tool.h"
#include "platform/messages.h"
#include "platform/sockets.h"
#include "platform/utf.h"
#include "tools/kvagentctl/agent_process.h"
#include "tools/kvagentctl/output.h"
#include "tools/kvagentctl/server_text.h"
#include "tools/kvagentctl/verbs.h"
#include "tools/kvreg/registry_tree.h"

namespace kv::control {

namespace {

using commandline::Given;
using commandline::Has;
using commandline::Value;
using platform::Utf8FromWide;
using platform::WideFromUtf8;

constexpr const char* noAddress = "--";  // as other writers of these settings put it
constexpr const char* defaultName = "Default";
constexpr const char* before = "as before";

struct Choice {
    const AgentSetting* setting;
    std::string value;
    std::string source;  // the option that it is from, or in words
    bool isFaulty = false;
};

/// What is stored now; empty when it is absent. A failed registry is a failure of the command.
std::string Stored(std::u16string_view key, std::u16string_view name) {
    RegFileValue value;
    const platform::Error result = ReadValue(key, name, value);
    RequireReadableRegistry(result);
    return value.type == platform::RegistryType::text ? Utf8FromWide(TextOfData(value.data)) : "";
}

class Setup {
  public:
    explicit Setup(const Given& given) : given_(given) {}

    /// Works out every setting. Problems are collected, not thrown.
    void Choose();

    const std::vector<Choice>& choices() const { return choices_; }
    const std::vector<std::string>& problems() const { return problems_; }
    const std::vector<std::string>& warnings() const { return warnings_; }

  private:
    void WarnOfTrust();
    void TakeServer();
    void ChooseName(std::u16string_view name, const std::string& fromServer);
    void ChooseAddress();
    void ChooseSecondAddress();
    void ChooseConnection();
    /// The option's value, else what is stored, else the fallback.
    void ChooseByOption(std::u16string_view key, std::u16string_view name, const char* option, const char* fallback);
    void Add(std::u16string_view key, std::u16string_view name, const std::string& value, const std::string& source);
    std::string LookUp(const std::string& host);
    void RefuseAddress(const char* taken, const std::string& given);

    const Given& given_;
    ServerText server_;   // as --server gives it, or the stored name
    bool isNew_ = false;  // another server than before
    bool isSecure_ = true;
    std::vector<Choice> choices_;
    std::vector<std::string> problems_;
    std::vector<std::string> warnings_;
};

void Setup::Choose() {
    TakeServer();
    ChooseAddress();
    ChooseSecondAddress();
    ChooseConnection();
    ChooseByOption(agentKeyPath, u"CustomerName", "--customer", defaultName);
    ChooseByOption(agentKeyPath, u"RemoteOfficeName", "--office", defaultName);
    if (Stored(agentKeyPath, u"KVAgentInstallDir").empty())
        warnings_.emplace_back(
            "KVAgentInstallDir is missing, and without it the agent cannot run: kvreg set "
            "\"Software\\Halvorine\\Kestrova\\KVAgent\" KVAgentInstallDir DIRECTORY/");
    WarnOfTrust();
}

/// What is asked of the server's certificate does not change here, and may no longer fit.
void Setup::WarnOfTrust() {
    if (!isSecure_) {
        for (const char16_t* name : {u"KVServerPinnedKey", u"KVServerCAFile", u"KVServerVerify"}) {
            const std::string stored = Stored(serverInfoKeyPath, name);
            if (stored.empty() || CompareIgnoreCase(WideFromUtf8(stored), u"no") == 0) continue;
            const std::string title = Utf8FromWide(name);
            warnings_.push_back(fmt::format(
                "{} asks for a certificate, which http does not have, so that nothing is sent to the server: give "
                "--protocol https, or kvreg delete \"{}\" {}",
                title, Utf8FromWide(serverInfoKeyPath), title));
        }
    } else if (isNew_ && !Stored(serverInfoKeyPath, u"KVServerPinnedKey").empty()) {
        warnings_.emplace_back("KVServerPinnedKey is still the former server's: kvagentctl pin stores the new one");
    }
}

void Setup::TakeServer() {
    const std::string stored = Stored(serverInfoKeyPath, u"KVServerName");
    isNew_ = Has(given_, "--server");
    if (!isNew_ && stored.empty()) problems_.emplace_back("--server is missing, and no server was set before");
    if (isNew_) server_ = ParseServerText(Value(given_, "--server"));
    if (!server_.problem.empty()) problems_.push_back("--server " + server_.problem);
    if (!isNew_) server_.host = stored;
    std::string flatName = server_.host.substr(0, server_.host.find('.'));
    // An address is not cut, nor a name whose first part would be taken for one.
    if (IsAddress(server_.host) || !HostFault(WideFromUtf8(flatName)).empty()) flatName = server_.host;
    ChooseName(u"KVServerName", server_.host);
    ChooseName(u"KVServerFlatName", flatName);
    ChooseName(u"KVLastAccessName", server_.host);
    isNew_ = server_.host != stored;
}

/// A name of the server that is given, or else the stored one; what is missing follows from the stored server.
void Setup::ChooseName(std::u16string_view name, const std::string& fromServer) {
    const std::string stored = Stored(serverInfoKeyPath, name);
    if (Has(given_, "--server"))
        Add(serverInfoKeyPath, name, fromServer, "--server");
    else if (!stored.empty())
        Add(serverInfoKeyPath, name, stored, before);
    else if (!fromServer.empty())
        Add(serverInfoKeyPath, name, fromServer, "KVServerName");
}

void Setup::ChooseAddress() {
    const std::string stored = Stored(serverInfoKeyPath, u"KVServerIPAddress");
    const std::string given = Value(given_, "--ip");
    if (Has(given_, "--ip")) {
        if (IsAddress(given))
            Add(serverInfoKeyPath, u"KVServerIPAddress", given, "--ip");
        else
            RefuseAddress("--ip takes an address", given);
    } else if (IsAddress(server_.host)) {
        const char* const source = server_.host == stored ? before : "KVServerName";
        Add(serverInfoKeyPath, u"KVServerIPAddress", server_.host, Has(given_, "--server") ? "--server" : source);
    } else if ((Has(given_, "--server") || stored.empty()) && !server_.host.empty() && problems_.empty()) {
        Add(serverInfoKeyPath, u"KVServerIPAddress", LookUp(server_.host), "looked up");
    } else if (!stored.empty()) {
        Add(serverInfoKeyPath, u"KVServerIPAddress", stored, before);
    }
}

void Setup::ChooseSecondAddress() {
    const std::string second = Value(given_, "--second-ip", noAddress);
    if (Has(given_, "--second-ip")) {
        if (second == noAddress || IsAddress(second))
            Add(serverInfoKeyPath, u"KVServerSecIPAddress", second, "--second-ip");
        else
            RefuseAddress("--second-ip takes an address, or -- for no address", second);
    } else if (const std::string now = Stored(serverInfoKeyPath, u"KVServerSecIPAddress"); isNew_ || now.empty()) {
        Add(serverInfoKeyPath, u"KVServerSecIPAddress", noAddress, "default");
    } else {
        Add(serverInfoKeyPath, u"KVServerSecIPAddress", now, before);
    }
}

void Setup::ChooseConnection() {
    std::string protocol = server_.protocol;
    if (protocol.empty()) protocol = Value(given_, "--protocol");
    const char* const protocolSource = server_.protocol.empty() ? "--protocol" : "--server";
    if (!server_.protocol.empty() && Has(given_, "--protocol") && Value(given_, "--protocol") != protocol)
        problems_.emplace_back("--server and --protocol name two protocols");
    if (protocol.empty())
        ChooseByOption(serverInfoKeyPath, u"KVServerProtocol", "--protocol", "https");
    else
        Add(serverInfoKeyPath, u"KVServerProtocol", protocol, protocolSource);
    isSecure_ = CompareIgnoreCase(WideFromUtf8(choices_.back().value), u"http") != 0;

    if (!server_.port.empty() && Has(given_, "--port") && Value(given_, "--port") != server_.port)
        problems_.emplace_back("--server and --port name two ports");
    if (!server_.port.empty())
        Add(serverInfoKeyPath, u"KVServerSecurePort", server_.port, "--server");
    else if (!server_.protocol.empty() && !Has(given_, "--port"))  // as every URL has it
        Add(serverInfoKeyPath, u"KVServerSecurePort", isSecure_ ? "443" : "80", "default of the URL");
    else
        ChooseByOption(serverInfoKeyPath, u"KVServerSecurePort", "--port", isSecure_ ? "8443" : "8080");
}

void Setup::ChooseByOption(std::u16string_view key, std::u16string_view name, const char* option,
                           const char* fallback) {
    const std::string stored = Stored(key, name);
    if (Has(given_, option))
        Add(key, name, Value(given_, option), option);
    else if (!stored.empty())
        Add(key, name, stored, before);
    else
        Add(key, name, fallback, "default");
}

void Setup::Add(std::u16string_view key, std::u16string_view name, const std::string& value,
                const std::string& source) {
    const AgentSetting* const setting = FindAgentSetting(key, name);
    choices_.push_back({.setting = setting, .value = value, .source = source});
    const std::string fault =
        platform::IsValidUtf8(value) ? SettingFault(*setting, WideFromUtf8(value)) : "is not UTF-8";
    if (fault.empty()) return;
    const bool isStored = source == before;
    const auto isOfSameText = [&](const Choice& choice) {
        return &choice != &choices_.back() && choice.isFaulty && choice.source == source &&
               choice.setting->rule == setting->rule;
    };
    // A server is stored under several names.
    const bool isTold = !isStored && std::any_of(choices_.begin(), choices_.end(), isOfSameText);
    choices_.back().isFaulty = true;
    if (!isTold) problems_.push_back(fmt::format("{} {}", isStored ? SettingTitle(*setting) : source, fault));
}

/// A name, which cannot stand where an address does, has no fault of its own.
void Setup::RefuseAddress(const char* taken, const std::string& given) {
    const std::string fault = HostFault(WideFromUtf8(given));
    problems_.push_back(fmt::format("{}, not '{}'{}", taken, given, fault.empty() ? ", which is a name" : fault));
}

/// The first address that the name leads to; else a problem, and a text that stands in for it.
std::string Setup::LookUp(const std::string& host) {
    platform::HostEntry entry;
    const platform::Error failure = platform::Sockets().gethostbyname(host, entry);
    if (failure == platform::error::success) return entry.address;
    problems_.push_back(
        fmt::format("the address of {} cannot be looked up: {} (error {}); correct --server, or give "
                    "the address with --ip",
                    host, platform::MessageInLine(failure), failure));
    return noAddress;
}

void RefuseProblems(const std::vector<std::string>& problems) {
    if (problems.empty()) return;
    for (const std::string& problem : problems) fmt::print(stderr, "kvagentctl: {}\n", commandline::InLine(problem));
    throw commandline::UsageError("nothing was stored");
}

/// Puts values back as they were; the titles of those that are as they were not. A full disk takes what it had before.
std::string Undo(const std::vector<std::pair<const AgentSetting*, RegFileValue>>& former) {
    std::string changed;
    for (const auto& [setting, value] : former) {
        const platform::Error failure =
            value.deleted ? DeleteValue(setting->key, value.name) : WriteValue(setting->key, value);
        if (failure != platform::error::success) changed += " " + SettingTitle(*setting);
    }
    return changed;
}

void Store(const std::vector<Choice>& choices) {
    std::vector<std::pair<const AgentSetting*, RegFileValue>> former;
    for (const Choice& choice : choices) {
        if (choice.source == before) continue;
        const AgentSetting& setting = *choice.setting;
        RegFileValue old;
        old.name = setting.name;
        const platform::Error reading = ReadValue(setting.key, setting.name, old);
        old.deleted = IsGone(reading);
        const RegFileValue value{.name = std::u16string(setting.name),
                                 .type = platform::RegistryType::text,
                                 .data = DataOfText(WideFromUtf8(choice.value))};
        if (const platform::Error failure = WriteValue(setting.key, value)) {
            const std::string changed = Undo(former);
            throw std::runtime_error(fmt::format(
                "{} cannot be stored: {}{}", SettingTitle(setting), RegistryFailureText(failure),
                changed.empty() ? "; nothing was stored"
                                : "; give the same command again then, because changed are already:" + changed));
        }
        if (reading == platform::error::success || old.deleted) former.emplace_back(&setting, std::move(old));
    }
}

/// Prints what the settings are now. Where that fails, they are stored all the same.
void PrintChoices(const std::vector<Choice>& choices, bool asJson, bool isStored) {
    Table table{{"setting", "value", "from"}, {}};
    for (const Choice& choice : choices)
        table.rows.push_back({SettingTitle(*choice.setting), choice.value, choice.source});
    fmt::print("{}", Printed(table, asJson ? Form::json : Form::table));
    try {
        commandline::FlushOutput();
    } catch (const std::runtime_error&) {
        fmt::print(stderr, "kvagentctl: {}\n",
                   isStored ? "the settings were stored all the same" : "nothing was stored");
        throw;
    }
}

void RunSetup(const Given& given) {
    const bool isDry = Has(given, "--dry-run");
    if (given.size() == std::size_t{isDry} + (Has(given, "--json") ? 1 : 0))
        throw commandline::UsageError("what is to be set? give --server, or what is to change");
    for (const char* option : {"--server", "--ip", "--second-ip"}) RefuseCredentials(given, option);
    Setup setup(given);
    setup.Choose();
    RefuseProblems(setup.problems());
    if (!isDry) Store(setup.choices());
    PrintChoices(setup.choices(), Has(given, "--json"), !isDry);
    for (const std::string& warning : setup.warnings()) fmt::print(stderr, "kvagentctl: warning: {}\n", warning);
    if (Has(given, "--json")) return;
    if (isDry)
        fmt::print("\nNothing was stored, because of --dry-run.\n");
    else
        fmt::print("\nStored. The agent takes it at its next start: {}\nkvagentctl check --online tries the server.\n",
                   platform::ServiceRestartCommand());
}

}  // namespace

const commandline::Command& SetupVerb() {
    static constexpr commandline::Option options[] = {
        {"--server", "SERVER", "the server's name, or a URL such as https://cs.example.com:8443"},
        {"--port", "PORT",
         "default: that of the URL (without one 443 for https and 80 for http, whatever was stored); for a mere name "
         "as "
         "before, else 8443 for https and 8080 for http"},
        {.name = "--protocol",
         .values = "PROTOCOL",
         .text = "https or http; default: as before, else https",
         .choices = "https http"},
        {"--customer", "NAME", "the customer, as the server knows it; default: as before, else Default"},
        {"--office", "NAME", "the office, as the server knows it; default: as before, else Default"},
        {"--ip", "ADDRESS", "the server's address; default: what the name leads to"},
        {"--second-ip", "ADDRESS", "the server's second address, or -- for no address"},
        {"--dry-run", "", "checks and prints, and stores nothing"},
        {"--json", "", "prints the settings as JSON"}};
    static constexpr commandline::Command verb{
        "setup",
        "Stores the settings that lead to the server. What is not given stays as it is, so that one thing can be "
        "changed by itself. Everything is checked first; if anything is wrong, all of it is told and nothing is "
        "stored.",
        {},
        options,
        RunSetup};
    return verb;
}

}  // namespace kv::control

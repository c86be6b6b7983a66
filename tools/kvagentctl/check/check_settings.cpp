// What kvagentctl check says of the settings.
#include <algorithm>
#include <fmt/format.h>
#include <optional>

#include "agent/metrics_file.h"
#include "agent/server_trust.h"
#include "foundation/agent_settings.h"
#include "foundation/agent_state.h"
#include "foundation/file_utils.h"
#include "foundation/proxy_password.h"
#include "foundation/registry_failure.h"
#include "foundation/registry_store.h"
#include "foundation/text.h"
#include "platform/console_tool.h"
#include "platform/registry_names.h"
#include "platform/utf.h"
#include "tools/kvagentctl/check/check_parts.h"
#include "tools/kvagentctl/readable_file.h"
#include "tools/kvreg/key_judgement.h"
#include "tools/kvreg/registry_tree.h"

namespace kv::control {

namespace {

using platform::Utf8FromWide;

OptionalText StoredText(platform::Error (*read)(OptionalText&)) {
    OptionalText text;
    return read(text) == platform::error::success ? text : std::nullopt;
}

/// The options of kvagentctl setup that store a setting.
struct SetupOption {
    std::u16string_view name;
    const char* option;
};
constexpr SetupOption setupOptions[] = {
    {u"CustomerName", "--customer NAME"},
    {u"RemoteOfficeName", "--office NAME"},
    {u"KVServerName", "--server SERVER"},
    {u"KVServerFlatName", "--server SERVER"},
    {u"KVLastAccessName", "--server SERVER"},
    {u"KVServerIPAddress", "--ip ADDRESS"},
    {u"KVServerSecIPAddress", "--second-ip ADDRESS"},
    {u"KVServerSecurePort", "--port PORT"},
    {u"KVServerProtocol", "--protocol https"},
};

/// The command that sets a setting right.
std::string SetCommand(const AgentSetting& setting) {
    for (const SetupOption& option : setupOptions) {
        if (option.name != setting.name) continue;
        const bool hasServer = StoredText(GetKVServerName).has_value();
        return fmt::format("kvagentctl setup {}", hasServer ? option.option : "--server SERVER");
    }
    if (setting.name == u"MonitoringAgentKey")
        return fmt::format(
            "kvreg set \"{}\" {} KEY, with the key that this agent has at its server; deleted, it registers as a new "
            "one",
            Utf8FromWide(setting.key), Utf8FromWide(setting.name));
    if (setting.use == SettingUse::stored)
        return fmt::format("kvreg delete \"{}\" {}, and the agent stores a new one", Utf8FromWide(setting.key),
                           Utf8FromWide(setting.name));
    const bool isNumber = SettingType(setting) == platform::RegistryType::dword;
    return fmt::format("kvreg set \"{}\" {} VALUE{}", Utf8FromWide(setting.key), Utf8FromWide(setting.name),
                       isNumber ? " --dword" : "");
}

void CheckSetting(Findings& findings, const AgentSetting& setting) {
    const std::string where = "setting " + SettingTitle(setting);
    RegFileValue value;
    const platform::Error result = ReadValue(setting.key, setting.name, value);
    if (IsGone(result)) {
        if (setting.use == SettingUse::required) findings.Error(where, "is missing", SetCommand(setting));
        return;
    }
    if (result != platform::error::success) {
        findings.Error(where, "cannot be read: " + RegistryFailureText(result));
        return;
    }
    if (const std::string doubt = SettingDoubt(setting, value.type, value.data); !doubt.empty())
        return findings.Warn(where, doubt);
    const std::string fault = SettingFault(setting, value.type, value.data);
    if (fault.empty()) return;
    if (setting.use == SettingUse::unused)
        findings.Warn(where, fault);
    else
        findings.Error(where, fault, SetCommand(setting));
}

/// Names below the agent's key that look like a slip. Others may be of the endpoint agent, whose key it is as well.
void CheckUnknownNames(Findings& findings) {
    RegFile tree;
    std::u16string failedAt;
    if (ReadTree(agentKeyPath, tree, failedAt) != platform::error::success) return;
    for (const RegFileKey& key : tree) {
        for (const RegFileValue& value : key.values) {
            if (FindAgentSetting(key.path, value.name)) continue;
            const std::string nearest = NearestSetting(key.path, value.name);
            if (nearest.empty()) continue;
            findings.Warn("setting " + Utf8FromWide(value.name) + " in " + Utf8FromWide(key.path),
                          fmt::format("the agent does not know it; did you mean {}?", nearest),
                          fmt::format("kvreg delete \"{}\" \"{}\"", Utf8FromWide(key.path), Utf8FromWide(value.name)));
        }
    }
}

/// Whether a value in a key, or in one below it, has the name of a setting.
bool HoldsSettings(const std::u16string& path) {
    RegFile tree;
    std::u16string failedAt;
    static_cast<void>(ReadTree(path, tree, failedAt));  // what can be read counts
    const auto isSetting = [](const RegFileValue& value) {
        const std::span<const AgentSetting> all = AgentSettings();
        return std::any_of(all.begin(), all.end(), [&](const AgentSetting& setting) {
            return CompareIgnoreCase(setting.name, value.name) == 0;
        });
    };
    return std::any_of(tree.begin(), tree.end(), [&](const RegFileKey& key) {
        return std::any_of(key.values.begin(), key.values.end(), isSetting);
    });
}

/// Keys with settings that look like a slip of the agent's key or of one below it: beside it, and beside each key above
/// it.
void CheckNearKeys(Findings& findings) {
    std::u16string above;
    for (std::u16string_view rest = agentKeyPath; !rest.empty();) {
        KeyContents contents;
        if (ReadKey(above, contents) != platform::error::success) return;
        const std::u16string start = above.empty() ? u"" : above + u"\\";
        for (const std::u16string& name : contents.subkeys) {
            const std::u16string path = start + name;
            const std::string doubt = IsAgentKey(path) ? "" : KeyDoubt(path, KeyUse::looking);
            if (doubt.empty() || !HoldsSettings(path)) continue;
            findings.Warn(
                "key " + Utf8FromWide(path), doubt,
                fmt::format("store its settings in the right key, then kvreg delete \"{}\"", Utf8FromWide(path)));
        }
        above = start + std::u16string(platform::TakeKeyName(rest));
    }
}

/// The agent does not use credentials of one character, which stand for an empty text.
void CheckProxyCredentials(Findings& findings) {
    constexpr const char* tooShort =
        "has one character, which the agent takes for an empty text: it does not log in at the proxy";
    if (StoredText(GetProxyUserName).value_or(u"").size() == 1) findings.Warn("setting ProxyUserName", tooShort);
    if (DecodeBase64(StoredText(GetProxyPassword).value_or(u"")).size() == 1)
        findings.Warn("setting ProxyPassword", tooShort);
}

/// Where the agent's own counts cannot be written.
void CheckMetricsFile(Findings& findings) {
    const AgentSetting* const setting = FindAgentSetting(monitoringKeyPath, u"MetricsFile");
    RegFileValue value;
    if (ReadValue(monitoringKeyPath, setting->name, value) != platform::error::success) return;
    const std::u16string path = TextOfData(value.data);
    if (path.empty() || !SettingFault(*setting, value.type, value.data).empty()) return;
    const std::string where = "setting " + SettingTitle(*setting);
    const std::string name = NativeName(path);
    const std::u16string folder = path.substr(0, path.find_last_of(u"/\\") + 1);
    if (!MayExist(folder))
        findings.Error(where,
                       fmt::format("the folder {} does not exist, and no counts are written", NativeName(folder)),
                       "make it");
    else if (IsDirectory(path))
        findings.Error(where, name + " is a directory, and no counts are written", "name a file in it");
    else if (MayReplaceMetrics(path) != platform::error::success) {
        const std::string fault = FileFault(path);
        findings.Error(where,
                       fmt::format("{} {}: the agent replaces only its own, and no counts are written", name,
                                   fault.empty() ? "is another file than the agent's" : fault),
                       "name another file");
    }
}

/// What fits each other only together.
void CheckTogether(Findings& findings) {
    const bool hasProxy = CompareIgnoreCase(StoredText(GetProxyEnabled), u"yes") == 0;
    if (hasProxy && !StoredText(GetProxyServerName))
        findings.Error("setting ProxyServerName", "is missing, and ProxyEnabled says yes",
                       "give the proxy as HOST:PORT, or set ProxyEnabled to no");
    if (hasProxy) CheckProxyCredentials(findings);
    std::uint32_t level = 1;
    GetAgentLogLevel(level);
    if (level == 3 || level == 4)
        findings.Warn("setting AgentLogLevel", fmt::format("is {}, which writes every SNMP datagram", level),
                      "set it back to 1 when you have seen what you look for");
}

/// What is asked of the server's certificate, and cannot be.
void CheckTrust(Findings& findings) {
    getServerTrust();
    const ServerTrust& trust = agentState.gv_serverTrust;
    const std::string where = "setting ServerInfo\\" + trust.refusal.substr(0, trust.refusal.find(' '));
    const bool isTold = std::any_of(findings.list.begin(), findings.list.end(),
                                    [&](const Finding& finding) { return finding.where == where; });
    if (!trust.refusal.empty() && !isTold)
        findings.Error(where, trust.refusal.substr(trust.refusal.find(' ') + 1) + ": nothing is sent to the server");
    const bool asks = !trust.pinnedKeys.empty() || trust.caFile || trust.systemAuthorities;
    const OptionalText protocol = StoredText(GetKVServerProtocol);
    if (asks && protocol && CompareIgnoreCase(protocol, u"https") != 0)
        findings.Error("setting ServerInfo\\KVServerProtocol",
                       "counts as http, and other settings ask for a certificate: nothing is sent to the server",
                       "kvagentctl setup --protocol https");
}

void CheckRegistryFile(Findings& findings) {
    const std::string file = platform::RegistryFile();
    if (file.empty()) return;
    const std::string directory = file.substr(0, file.rfind('/'));
    CheckPermissions(findings, "state directory", platform::WideFromUtf8(directory), "0750");
    CheckPermissions(findings, "registry", platform::WideFromUtf8(file), "0600");
}

struct Directory {
    std::u16string_view path;  // below the install directory
    Severity whenMissing;
    bool mayBeRead;  // by others
};
constexpr Directory directories[] = {
    {u"", Severity::error, true},
    {u"monitoring", Severity::error, true},
    {u"monitoring\\bin", Severity::error, true},
    {u"monitoring\\conf", Severity::error, false},
    {u"monitoring\\conf\\scripts", Severity::warning, true},
    {u"monitoring\\logs", Severity::warning, false},
};

/// What a path is that is not a directory, or cannot be seen to be one.
Finding NoDirectory(std::u16string_view path, Severity severity) {
    const std::string where = "directory " + NativeName(path);
    if (!MayExist(path)) return {severity, where, "does not exist", "make it"};
    const std::string fault = FileFault(path);
    return {severity, where, fault.empty() ? "is a file" : fault, ""};
}

void CheckInstallDirectory(Findings& findings) {
    const std::u16string install = InstallDirectory();
    if (install.empty()) return;
    if (!IsDirectory(install)) {
        findings.Error("setting KVAgentInstallDir", NativeName(install) + " is not a directory",
                       "make it, or set KVAgentInstallDir to where the agent is installed");
        return;
    }
    if (!platform::GetFilePermissions(install))
        findings.Note("files and directories", "who may read and change them is not judged on this system");
    for (const Directory& directory : directories) {
        const std::u16string path = install + std::u16string(directory.path);
        if (IsDirectory(path))
            CheckPermissions(findings, "directory", path, "0750", directory.mayBeRead);
        else
            findings.list.push_back(NoDirectory(path, directory.whenMissing));
    }
}

}  // namespace

void CheckPermissions(Findings& findings, const std::string& what, std::u16string_view path, const char* wanted,
                      bool mayBeRead) {
    const std::optional<platform::FilePermissions> found = platform::GetFilePermissions(path);
    if (!found) return;
    const std::string name = NativeName(path);
    const std::string next = fmt::format("chmod {} {}", wanted, name);
    if (found->othersWrite)
        findings.Error(what + " " + name, fmt::format("others may write to it (mode {})", found->mode), next);
    else if (found->othersRead && !mayBeRead)
        findings.Warn(what + " " + name, fmt::format("others may read it (mode {})", found->mode), next);
    if (!found->isOwnerTrusted)
        findings.Warn(what + " " + name, fmt::format("belongs to {}", found->owner),
                      fmt::format("chown root {}, unless the agent runs as {}", name, found->owner));
}

std::u16string InstallDirectory() {
    const OptionalText install = StoredText(GetKVAgentInstallDir);
    const AgentSetting* const setting = FindAgentSetting(agentKeyPath, u"KVAgentInstallDir");
    return install && SettingTakes(*setting, *install) ? *install : std::u16string();
}

bool CheckSettings(Findings& findings, Severity whenUnreadable) {
    KeyContents contents;
    const platform::Error result = ReadKey(agentKeyPath, contents);
    const std::string unchecked = "settings and scripts are not checked: ";
    if (IsRegistryNew()) {
        findings.list.push_back({whenUnreadable, "registry", unchecked + platform::RegistryFile() + " does not exist",
                                 "kvagentctl setup --server SERVER makes it; if the agent is installed, "
                                 "KVAGENT_STATE_DIR has to name the directory of its registry"});
        CheckRegistryFile(findings);
        return false;
    }
    if (!MissingRegistryText().empty() || (result != platform::error::success && !IsGone(result))) {
        findings.list.push_back({whenUnreadable, "registry", unchecked + RegistryFailureText(result), ""});
        return false;
    }
    for (const AgentSetting& setting : AgentSettings()) CheckSetting(findings, setting);
    CheckUnknownNames(findings);
    CheckNearKeys(findings);
    CheckTogether(findings);
    CheckMetricsFile(findings);
    CheckLimits(findings);
    CheckTrust(findings);
    CheckRegistryFile(findings);
    CheckInstallDirectory(findings);
    return true;
}

}  // namespace kv::control

#include "foundation/agent_settings.h"

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <fmt/format.h>
#include <vector>

#include "foundation/file_utils.h"
#include "foundation/host_text.h"
#include "foundation/key_pins.h"
#include "foundation/proxy_password.h"
#include "foundation/registry_store.h"
#include "foundation/request_types.h"
#include "foundation/server_limit.h"
#include "foundation/text.h"
#include "platform/console_tool.h"
#include "platform/files.h"
#include "platform/name_pattern.h"
#include "platform/near_name.h"
#include "platform/utf.h"

namespace kv {

namespace {

using platform::RegistryType;
using enum SettingRule;
using enum SettingUse;

constexpr std::uint32_t mostSeconds = INT32_MAX;       // what a 32-bit count of seconds holds
constexpr std::uint32_t mostMinutes = INT32_MAX / 60;  // which are counted in seconds

// Bytes of UTF-8. A file's name has 255 at most; "Agent_", a number and two extensions stand around the key.
constexpr std::size_t longestAgentKey = 220;

constexpr AgentSetting settings[] = {
    {agentKeyPath, u"KVAgentInstallDir", directory, required, "where the agent's directory monitoring stands"},
    {agentKeyPath, u"AgentLogLevel", number, optional, "how much the log tells", "1", 0, 4},
    {agentKeyPath, u"LoggerMaxSize", number, optional, "characters of a log before the next one begins", "1000000", 1},
    {agentKeyPath, u"LoggerMaxFiles", number, optional, "logs that are kept", "10", 1},
    {agentKeyPath, u"CustomerName", text, required, "the customer, as the server knows it"},
    {agentKeyPath, u"RemoteOfficeName", text, required, "the office, as the server knows it"},
    {agentKeyPath, u"EnableSendAgentStatus", yesOrNo, optional, "whether a stop is reported to the server",
     "not reported; written by enrolment"},
    {agentKeyPath, u"ProxyEnabled", yesOrNo, optional, "whether the server is reached by a proxy", "NO"},
    {agentKeyPath, u"ProxyServerName", proxies, optional, "the proxy", "no such text"},
    {agentKeyPath, u"ProxyUserName", anyText, optional, "who logs in at the proxy", "no such text"},
    {agentKeyPath, u"ProxyByPass", bypassList, optional, "servers that are reached without the proxy", "no such text"},
    {agentKeyPath, u"ProxyPassword", base64, optional, "the password at the proxy", "no password"},

    {serverInfoKeyPath, u"KVServerName", host, required, "the server's full name"},
    {serverInfoKeyPath, u"KVServerFlatName", host, required, "the server's name without its domain"},
    {serverInfoKeyPath, u"KVServerIPAddress", host, required, "the server's address"},
    {serverInfoKeyPath, u"KVLastAccessName", host, required, "the name or address that is tried first"},
    {serverInfoKeyPath, u"KVServerSecIPAddress", optionalHost, optional, "the server's second address",
     "no second address"},
    {serverInfoKeyPath, u"KVServerSecurePort", port, required, "the server's port"},
    {serverInfoKeyPath, u"KVServerProtocol", protocol, optional, "how the server is spoken to", "https"},
    {serverInfoKeyPath, u"KVServerPinnedKey", keyPins, optional, "the only public keys that the server may have",
     "certificates are not verified"},
    {serverInfoKeyPath, u"KVServerCAFile", wholePath, optional,
     "the authorities that the server's certificate may be from", "certificates are not verified"},
    {serverInfoKeyPath, u"KVServerVerify", yesOrNo, optional, "whether the system's authorities verify the server",
     "no"},

    {monitoringKeyPath, u"MonitoringAgentKey", partOfFileName, stored, "the agent's key at its server",
     "written by enrolment"},
    {monitoringKeyPath, u"MasterAgent", yesOrNo, optional, "whether it serves slaves, too", "NO"},
    {monitoringKeyPath, u"writeInterval", number, optional, "seconds between uploads", "300", 0, mostSeconds},
    {monitoringKeyPath, u"DataCollectionTimeout", number, optional, "minutes of lost contact until collection stops",
     "360", 0, mostMinutes},
    {monitoringKeyPath, u"AllowedRequests", requestTypes, optional, "the requests that the server may make", "all"},
    {monitoringKeyPath, u"AllowedServices", servicePatterns, optional, "the services that requests may start and stop",
     "all"},
    {monitoringKeyPath, u"AllowedScripts", scriptPatterns, optional, "the scripts that plans may run", "all"},
    {monitoringKeyPath, u"SNMPCheckSource", yesOrNo, optional, "whether only the device's own address may answer",
     "NO"},
    {monitoringKeyPath, u"MetricsFile", metricsPath, optional, "where the agent's own counts are written", "nowhere"},
    {monitoringKeyPath, u"MALastCreatedJSONNum", number, stored, "the number of the last record file", "1"},
    {monitoringKeyPath, u"MALastCreatedZIPNum", number, stored, "the number of the last zip", "1"},
    {monitoringKeyPath, u"RequestAvailable", anyText, stored, "whether requests wait at the server", "no request"},
    {monitoringKeyPath, u"RequestID", anyText, stored, "the request that is being served", "no request"},
    {monitoringKeyPath, u"configInterval", number, unused, "seconds between looks for requests", "no effect"},
    {monitoringKeyPath, u"SysInfoInterval", number, unused, "seconds", "no effect"},
    {monitoringKeyPath, u"MaxFilesInDir", number, unused, "files", "no effect"},
    {monitoringKeyPath, u"MaxFilestobeSend", number, unused, "files", "no effect"},

    {systemDetailsKeyPath, u"KVAgentResourceID", anyText, optional, "this computer's number at the endpoint agent",
     "the agent goes on without it"},
};

bool SameText(std::u16string_view left, std::u16string_view right) { return CompareIgnoreCase(left, right) == 0; }

bool IsPort(std::u16string_view text) {
    const bool isDecimal = !text.empty() && text.find_first_not_of(u"0123456789") == std::u16string_view::npos;
    const std::int32_t number = isDecimal ? ParseDecimal(text) : 0;
    return number >= 1 && number <= 65535;
}

/// One entry of a list of proxies: "[scheme=][scheme://]host[:port]".
bool IsProxy(std::u16string_view entry) {
    for (const std::u16string_view scheme : {u"http=", u"https=", u"http://", u"https://"}) {
        if (SameText(entry.substr(0, scheme.size()), scheme)) entry.remove_prefix(scheme.size());
    }
    if (entry.ends_with(u'/')) entry.remove_suffix(1);
    const std::size_t colon = entry.rfind(u':');
    const bool hasPort =
        colon != std::u16string_view::npos && (entry.find(u':') == colon || entry.substr(0, colon).ends_with(u']'));
    return HostFault(entry.substr(0, hasPort ? colon : std::u16string_view::npos)).empty() &&
           (!hasPort || IsPort(entry.substr(colon + 1)));
}

bool AreProxies(std::u16string_view list) {
    constexpr std::u16string_view separators = u"; \t\r\n";
    bool hasProxy = false;
    for (std::size_t start = 0; (start = list.find_first_not_of(separators, start)) != std::u16string_view::npos;) {
        const std::size_t end = std::min(list.find_first_of(separators, start), list.size());
        if (!IsProxy(list.substr(start, end - start))) return false;
        hasProxy = true;
        start = end;
    }
    return hasProxy;
}

/// One form of a whole path, by which it is compared: without "//", "." and "..", in upper case. The disk is not asked,
/// because a folder of the metrics may not answer.
std::u16string PlaceOf(std::u16string_view path) {
    const std::filesystem::path native(platform::Files().NativePath(path));
    std::u16string place = native.lexically_normal().generic_u16string();
    std::transform(place.begin(), place.end(), place.begin(), platform::UpperCaseOf);
    return place;
}

bool IsRegistryFile(std::u16string_view place) {
    const std::string file = platform::RegistryFile();
    if (file.empty()) return false;
    constexpr const char* parts[] = {"", "-wal", "-shm"};
    return std::any_of(std::begin(parts), std::end(parts),
                       [&](const char* part) { return place == PlaceOf(platform::WideFromUtf8(file + part)); });
}

/// Of a name in the agent's folder of logs.
bool IsAgentLog(std::u16string_view name) {
    return name == u"STATUS.JSON" || name == u"TESTMONITOR.LOG" || name == u"SNMP_AGENT.LOG" ||
           (name.starts_with(u"AGENT") && name.ends_with(u".LOG"));
}

/// Whether a whole path leads to what the agent has for another purpose: its programs, records, plan and scripts, its
/// logs, or the registry.
bool IsAgentFile(std::u16string_view path) {
    const std::u16string place = PlaceOf(path);
    if (IsRegistryFile(place)) return true;
    OptionalText installDir;
    if (LookUpText(agentKeyPath, u"KVAgentInstallDir", installDir) != platform::error::success) return false;
    const auto folder = [&](std::u16string_view name) {
        return PlaceOf(ConcatStrings(*installDir, ConcatStrings(u"monitoring\\", name)));
    };
    const std::u16string logs = folder(u"logs\\");
    return place.starts_with(folder(u"bin\\")) || place.starts_with(folder(u"conf\\")) ||
           (place.starts_with(logs) && IsAgentLog(std::u16string_view(place).substr(logs.size())));
}

std::string KindName(RegistryType type) {
    switch (type) {
        case RegistryType::text:
        case RegistryType::expandableText:
            return "a text";
        case RegistryType::dword:
            return "a DWORD";
        default:
            return fmt::format("a value of type {}", static_cast<std::uint32_t>(type));
    }
}

/// A stored text ends at its first zero character.
std::u16string StoredText(std::span<const std::byte> data) {
    const std::u16string text = TextFromUtf16LittleEndian({reinterpret_cast<const char*>(data.data()), data.size()});
    return text.substr(0, text.find(u'\0'));
}

/// What is wrong in a text that a setting does not take, to go on from what it takes: ", not 'ftp'".
std::string WrongPart(const AgentSetting& setting, std::u16string_view value) {
    const auto isNot = [](std::u16string_view part, const std::string& reason = "") {
        return fmt::format(", not '{}'{}", platform::Utf8FromWide(part), reason);
    };
    const bool isHost = setting.rule == host || setting.rule == optionalHost;
    if (setting.rule == base64) return "";
    if ((isHost || setting.rule == proxies) && value.find(u'@') != std::u16string_view::npos)
        return ", and neither user nor password before an @";
    if (isHost && value.size() > longestHost)
        return fmt::format(", of at most {} characters, not of {}", longestHost, value.size());
    if (isHost) return isNot(value, HostFault(value));
    if (setting.rule == partOfFileName && value.size() > longestAgentKey)
        return fmt::format(", not one of {} characters", value.size());
    if (setting.rule == protocol) return isNot(value, ", which counts as http");
    if (setting.rule == keyPins)
        return isNot(ReadKeyPins(value).wrong, "; kvagentctl pin fetches and stores that of the server");
    if (setting.rule != requestTypes) return isNot(value);
    const std::u16string wrong = UnfitRequestPattern(value);
    if (!WordForAll(wrong).empty()) return isNot(wrong, "; * stands for all, and an absent setting too");
    const std::u16string_view nearest = platform::NearestName(wrong, requestTypeNames);
    return isNot(wrong) + (nearest.empty() ? "" : fmt::format("; did you mean {}?", platform::Utf8FromWide(nearest)));
}

/// What is odd about a list of patterns for services or scripts.
std::string PatternDoubt(std::u16string_view list, bool areScripts) {
    if (const std::u16string wrong = RegularExpression(list); !wrong.empty())
        return fmt::format(
            "has '{}', which looks like a regular expression; patterns have only * for any characters and ? for one, "
            "with commas between them",
            platform::Utf8FromWide(wrong));
    if (const std::u16string wrong = UselessPattern(list, areScripts); !wrong.empty())
        return fmt::format(
            "has '{}', which can hardly match anything; {} with commas between them, in which * and ? stand for "
            "other characters",
            platform::Utf8FromWide(wrong), areScripts ? "give paths below conf/scripts" : "give names");
    if (const std::u16string wrong = UnpartedPattern(list); !wrong.empty())
        return fmt::format(
            "has '{}', which is one pattern with a blank in it; several patterns need commas between them",
            platform::Utf8FromWide(wrong));
    if (const std::u16string wrong = WordForAll(list); !wrong.empty())
        return fmt::format(
            "has '{}', which stands only for a {} of that name; * stands for all, and an absent setting too",
            platform::Utf8FromWide(wrong), areScripts ? "script" : "service");
    return "";
}

/// What is odd about a password, without a part of it. Other agents' texts and a password in clear that happens to be
/// Base64 decode to bytes that nobody types.
std::string PasswordDoubt(std::u16string_view encoded) {
    constexpr const char* next = "encode the password alone, as in: printf %s PASSWORD | base64";
    std::string bytes;
    for (const char16_t unit : DecodeBase64(encoded)) bytes += static_cast<char>(unit);
    if (bytes.ends_with('\n') || bytes.ends_with('\r'))
        return fmt::format("decodes to a text with a line end, which counts as part of the password; {}", next);
    if (!platform::IsValidUtf8(bytes))
        return fmt::format("decodes to bytes that are not UTF-8 (is it the password in clear?); {}", next);
    const bool hasControl = std::any_of(
        bytes.begin(), bytes.end(), [](char byte) { return static_cast<unsigned char>(byte) < ' ' || byte == '\x7F'; });
    return hasControl ? fmt::format("decodes to a text with a control character; {}", next) : "";
}

/// Whether a directory is the one that the agent looks for below it.
bool IsMonitoringFolder(std::u16string_view directory) {
    while (EndsInSeparator(directory)) directory.remove_suffix(1);
    const std::u16string_view name = directory.substr(directory.find_last_of(u"\\/") + 1);
    return SameText(name, u"monitoring");
}

/// The same as SettingDoubt, of a text.
std::string TextDoubt(const AgentSetting& setting, std::u16string_view value) {
    const bool isScript = setting.rule == scriptPatterns;
    if (setting.rule == bypassList && value.find(u',') != std::u16string_view::npos)
        return "has a comma, which parts nothing here; put ; between the hosts";
    if (setting.rule == directory && IsMonitoringFolder(value))
        return "ends in monitoring, below which the agent looks for another directory of that name; leave it out";
    if (isScript || setting.rule == servicePatterns) return PatternDoubt(value, isScript);
    if (setting.rule == base64) return PasswordDoubt(value);
    if (setting.rule == metricsPath && !value.empty() && !value.ends_with(u".prom"))
        return "does not end in .prom, and the textfile collector of node_exporter reads only such files";
    return "";
}

}  // namespace

std::span<const AgentSetting> AgentSettings() { return settings; }

const AgentSetting* FindAgentSetting(std::u16string_view key, std::u16string_view name) {
    const auto* const found = std::find_if(std::begin(settings), std::end(settings), [&](const AgentSetting& setting) {
        return SameText(setting.key, key) && SameText(setting.name, name);
    });
    return found == std::end(settings) ? nullptr : found;
}

bool IsAgentKey(std::u16string_view key) {
    const std::size_t length = agentKeyPath.size();
    return SameText(key.substr(0, length), agentKeyPath) && (key.size() == length || key[length] == u'\\');
}

RegistryType SettingType(const AgentSetting& setting) {
    return setting.rule == number ? RegistryType::dword : RegistryType::text;
}

bool SettingTakes(const AgentSetting& setting, std::u16string_view value) {
    switch (setting.rule) {
        case anyText:
        case bypassList:
        case servicePatterns:
        case scriptPatterns:
            return true;
        case text:
            return !value.empty() &&
                   std::none_of(value.begin(), value.end(), [](char16_t unit) { return unit < u' '; });
        case partOfFileName:
            return !value.empty() && IsPlainFileName(ConcatStrings(ConcatStrings(u"Agent_", value), u"_1.txt")) &&
                   platform::Utf8FromWide(value).size() <= longestAgentKey;
        case wholePath:
            return IsWholePath(value);
        case metricsPath:
            return value.empty() || (IsWholePath(value) && !IsAgentFile(value));
        case directory:
            return IsWholePath(value) && EndsInSeparator(value);
        case host:
            return HostFault(value).empty();
        case optionalHost:
            return value.size() < 3 || HostFault(value).empty();
        case port:
            return IsPort(value);
        case protocol:
            return SameText(value, u"https") || SameText(value, u"http");
        case keyPins:
            return !ReadKeyPins(value).pins.empty();
        case proxies:
            return AreProxies(value);
        case requestTypes:
            return UnfitRequestPattern(value).empty();
        case yesOrNo:
            return SameText(value, u"yes") || SameText(value, u"no");
        case base64:
            return value.empty() || !DecodeBase64(value).empty();
        case number:
            return false;
    }
    return false;
}

bool SettingTakes(const AgentSetting& setting, std::uint32_t value) {
    return setting.rule == number && value >= setting.least && value <= setting.most;
}

std::string SettingTaken(const AgentSetting& setting) {
    switch (setting.rule) {
        case anyText:
            return "a text";
        case bypassList:
            return "hosts with ; between them";
        case servicePatterns:
        case scriptPatterns:
            return "patterns with commas between them";
        case text:
            return "a text that is not empty and has no control characters";
        case partOfFileName:
            return fmt::format(
                "a text that can stand in a file's name, of 1 to {} bytes without / \\ : * ? \" < > | and control "
                "characters",
                longestAgentKey);
        case wholePath:
            return "a whole path, from the root on";
        case metricsPath:
            return "a whole path, of a file that is not one of the agent's own";
        case directory:
            return "the whole path of a directory, from the root on, with a slash at its end";
        case host:
            return "a name or an address, without scheme and port";
        case optionalHost:
            return "a name or an address without scheme and port, or -- for no address";
        case port:
            return "a port number from 1 to 65535";
        case protocol:
            return "https or http";
        case keyPins:
            return "sha256// and the 44 characters of a hash in Base64, several with ; between them";
        case proxies:
            return "a proxy as HOST or HOST:PORT, several with ; between them";
        case requestTypes:
            return "types of requests with commas between them";
        case yesOrNo:
            return "yes or no";
        case base64:
            return "Base64";
        case number:
            break;
    }
    return fmt::format("a number from {} to {}", setting.least, setting.most);
}

std::string SettingFault(const AgentSetting& setting, RegistryType type, std::span<const std::byte> data) {
    const std::string taken = SettingTaken(setting);
    if (SettingType(setting) == RegistryType::dword) {
        if (type != RegistryType::dword || data.size() != sizeof(std::uint32_t))
            return fmt::format("has to be a DWORD, {}, not {}", taken, KindName(type));
        std::uint32_t value = 0;
        std::memcpy(&value, data.data(), sizeof value);
        return SettingTakes(setting, value) ? "" : fmt::format("takes {}, not {}", taken, value);
    }
    if (type != RegistryType::text && type != RegistryType::expandableText)
        return fmt::format("has to be a text, not {}", KindName(type));
    return SettingFault(setting, StoredText(data));
}

std::string SettingFault(const AgentSetting& setting, std::u16string_view value) {
    if (SettingTakes(setting, value)) return "";
    return fmt::format("takes {}{}", SettingTaken(setting), WrongPart(setting, value));
}

std::string SettingDoubt(const AgentSetting& setting, RegistryType type, std::span<const std::byte> data) {
    if (!SettingFault(setting, type, data).empty()) return "";
    if (setting.rule != number) return TextDoubt(setting, StoredText(data));
    constexpr std::uint32_t fewCharacters = 10000;
    std::uint32_t value = 0;
    std::memcpy(&value, data.data(), sizeof value);
    if (setting.name != u"LoggerMaxSize" || value >= fewCharacters) return "";
    return fmt::format("is {} characters, which a few lines fill; 1000000 is the default", value);
}

std::string SettingTitle(const AgentSetting& setting) {
    std::u16string_view subkey = setting.key.substr(agentKeyPath.size());
    if (!subkey.empty()) subkey.remove_prefix(1);  // the backslash
    const std::string name = platform::Utf8FromWide(setting.name);
    return subkey.empty() ? name : platform::Utf8FromWide(subkey) + "\\" + name;
}

std::string NearestSetting(std::u16string_view key, std::u16string_view name) {
    const auto place = [key](const AgentSetting& setting) {
        const bool isElsewhere = SameText(setting.key, agentKeyPath) && !SameText(key, agentKeyPath);
        return SettingTitle(setting) +
               (isElsewhere ? " in the key " + platform::Utf8FromWide(agentKeyPath) : std::string());
    };
    std::vector<std::u16string_view> names;
    for (const AgentSetting& setting : settings) {
        // "ServerInfo\KVServerName", as it is shown to people
        if (name.find(u'\\') != std::u16string_view::npos &&
            SameText(platform::WideFromUtf8(SettingTitle(setting)), name))
            return platform::Utf8FromWide(setting.name) + " in the key " + platform::Utf8FromWide(setting.key);
        if (SameText(setting.name, name) && !SameText(setting.key, key)) return place(setting);
        names.push_back(setting.name);
    }
    const std::u16string_view nearest = platform::NearestName(name, names);
    for (const AgentSetting& setting : settings) {
        if (!nearest.empty() && setting.name == nearest) return place(setting);
    }
    return {};
}

}  // namespace kv

// The values that the agent knows in the registry: its settings, and what it stores there itself. One table, by which
// the tools judge what people set. The accessors of foundation/registry_store.h read the values; docs/running.md tells
// the same list to people.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>

#include "platform/registry.h"

namespace kv {

/// What a value holds. All but number are texts.
enum class SettingRule {
    anyText,
    text,             // not empty, without control characters
    partOfFileName,   // what can stand in the name of a file on every system
    wholePath,        // from the root on
    metricsPath,      // the same, and not one of the agent's own files; or empty
    directory,        // the same; ends in a slash or backslash, because paths are appended to it
    host,             // a name or an address, without scheme and port
    optionalHost,     // the same, or up to two characters, such as "--", for no address
    port,             // decimal, 1 to 65535
    protocol,         // "https" or "http"
    keyPins,          // as foundation/key_pins.h reads them
    proxies,          // hosts with or without a port, a list with blanks or semicolons between them
    bypassList,       // hosts with semicolons or blanks between them
    servicePatterns,  // patterns with commas between them; or empty
    scriptPatterns,   // the same
    requestTypes,     // patterns with commas between them, each of which fits a type of request; or empty
    yesOrNo,
    base64,
    number,  // a DWORD
};

enum class SettingUse {
    required,
    optional,
    unused,  // read and printed, without effect
    stored,  // by the agent itself; not for people to set
};

struct AgentSetting {
    std::u16string_view key;  // one of the paths of foundation/registry_store.h
    std::u16string_view name;
    SettingRule rule;
    SettingUse use;
    std::string_view meaning;          // a phrase
    std::string_view whenAbsent = {};  // the default as it is written, or what happens; empty when it is required
    std::uint32_t least = 0;           // of a number
    std::uint32_t most = UINT32_MAX;
};

/// All of them, in the order of docs/running.md.
std::span<const AgentSetting> AgentSettings();

/// The value of that name in the key of that path below HKEY_LOCAL_MACHINE, in any letter case; null when the agent
/// does not know it.
const AgentSetting* FindAgentSetting(std::u16string_view key, std::u16string_view name);

/// Whether a path is that of the agent's key, or of one below it.
bool IsAgentKey(std::u16string_view key);

platform::RegistryType SettingType(const AgentSetting& setting);

/// Whether the value may hold that. A text given for a number, or a number for a text, is never right. Where the
/// agent's own files are, for metricsPath, is read from the registry.
bool SettingTakes(const AgentSetting& setting, std::u16string_view value);
bool SettingTakes(const AgentSetting& setting, std::uint32_t value);

/// What the value may hold, as "a port number from 1 to 65535".
std::string SettingTaken(const AgentSetting& setting);

/// What is wrong with a stored value, as "has to be a DWORD, not a text"; empty when the agent can use it.
std::string SettingFault(const AgentSetting& setting, platform::RegistryType type, std::span<const std::byte> data);

/// The same of a text that is to be stored. A password is not repeated.
std::string SettingFault(const AgentSetting& setting, std::u16string_view value);

/// What is odd about a stored value that the agent takes, as "has a comma, ...", with what to do about it; empty when
/// nothing is, and when the value has a fault.
std::string SettingDoubt(const AgentSetting& setting, platform::RegistryType type, std::span<const std::byte> data);

/// Where a value stands and its name, as "ServerInfo\KVServerName"; the agent's key itself is left out.
std::string SettingTitle(const AgentSetting& setting);

/// What was probably meant by a name that the agent does not know, as "ServerInfo\KVServerName"; empty when no setting
/// is near. A known name in another of the agent's keys is near; one that stands in the agent's key itself is followed
/// by that key's path, unless that is the key.
std::string NearestSetting(std::u16string_view key, std::u16string_view name);

}  // namespace kv

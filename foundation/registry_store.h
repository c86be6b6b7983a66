// The agent's settings and counters in the registry, under HKEY_LOCAL_MACHINE.
//
// Four generic operations, and one accessor for each value. Results are system error numbers, 0 for success. Text
// accessors make their output absent first, whatever happens next. Number accessors, and GetProxyEnabled, give a fixed
// fallback when the value cannot be read, and always return 0. A key that cannot be opened and a value that cannot be
// written are logged. Callable from any thread without a lock: the writers touch different values. Texts may throw
// std::bad_alloc.
#pragma once

#include <cstdint>
#include <string_view>

#include "foundation/text.h"
#include "platform/registry.h"

namespace kv {

inline constexpr std::u16string_view agentKeyPath = u"Software\\Halvorine\\Kestrova\\KVAgent";
inline constexpr std::u16string_view serverInfoKeyPath = u"Software\\Halvorine\\Kestrova\\KVAgent\\ServerInfo";
inline constexpr std::u16string_view monitoringKeyPath = u"Software\\Halvorine\\Kestrova\\KVAgent\\Monitoring";
inline constexpr std::u16string_view systemDetailsKeyPath = u"Software\\Halvorine\\Kestrova\\KVAgent\\SystemDetails";

/// Reads a text up to its first zero character. A value of size 0 is a success that leaves outText absent. moreData
/// when the value keeps growing. The stored type is not checked.
[[nodiscard]] platform::Error ReadRegSZ(platform::RootKey root, std::u16string_view subKey,
                                        std::u16string_view valueName, OptionalText& outText);

/// Reads a number; outNumber changes only on success. A value of fewer than four bytes fills the low ones, a longer one
/// gives moreData. The stored type is not checked.
[[nodiscard]] platform::Error ReadDwordRegistryData(platform::RootKey root, std::u16string_view subKey,
                                                    std::u16string_view valueName, std::uint32_t& outNumber);

/// Reads a text that may well be absent, without a log line: fileNotFound when it is, invalidData when the value is not
/// a text. A value of size 0 is an empty text.
[[nodiscard]] platform::Error LookUpText(std::u16string_view subKey, std::u16string_view valueName,
                                         OptionalText& outText);

/// Reads a number likewise, and changes outNumber only on success: invalidData when it is not stored as a DWORD.
[[nodiscard]] platform::Error LookUpNumber(std::u16string_view subKey, std::u16string_view valueName,
                                           std::uint32_t& outNumber);

/// Stores data, always given as text, as the type asked for; makes the key when it is missing. A name of "--" is the
/// key's default value, data of "--" the empty text. The text of a number is decimal and fits 32 bits, signed or
/// unsigned: otherwise invalidData, and nothing is stored.
platform::Error writeValue(platform::RootKey root, std::u16string_view subKey, std::u16string_view valueName,
                           std::u16string_view data, platform::RegistryType type);

/// Makes a key with all keys on the way to it; success, too, when it is there.
platform::Error addRegistryKey(platform::RootKey root, std::u16string_view subKey);

// Agent
platform::Error GetKVAgentInstallDir(OptionalText& out);
platform::Error GetAgentLogLevel(std::uint32_t& out);   // fallback 1
platform::Error GetLoggerMaxSize(std::uint32_t& out);   // fallback 1000000
platform::Error GetLoggerMaxFiles(std::uint32_t& out);  // fallback 10
platform::Error GetCustomerName(OptionalText& out);
platform::Error GetRemoteOfficeName(OptionalText& out);
platform::Error GetEnableSendAgentStatus(OptionalText& out);
platform::Error SetEnableSendAgentStatus(std::u16string_view text);
platform::Error GetProxyEnabled(OptionalText& out);  // fallback "NO"; an error when it cannot be read
platform::Error GetProxyServerName(OptionalText& out);
platform::Error GetProxyUserName(OptionalText& out);
platform::Error GetProxyByPass(OptionalText& out);
platform::Error GetProxyPassword(OptionalText& out);  // Base64

// ServerInfo
platform::Error GetKVServerName(OptionalText& out);
platform::Error GetKVServerFlatName(OptionalText& out);
platform::Error GetKVServerIPAddress(OptionalText& out);
platform::Error GetKVServerSecIPAddress(OptionalText& out);  // absent when it has fewer than 3 characters
platform::Error GetKVServerSecurePort(OptionalText& out);    // decimal text
platform::Error GetKVServerProtocol(OptionalText& out);
platform::Error GetKVLastAccessName(OptionalText& out);
// What a certificate must be. fileNotFound when the setting is absent, invalidData when it is not a text.
platform::Error GetKVServerPinnedKey(OptionalText& out);
platform::Error GetKVServerCAFile(OptionalText& out);
platform::Error GetKVServerVerify(OptionalText& out);

// Monitoring
platform::Error GetOCAgentKey(OptionalText& out);
platform::Error SetOCAgentKey(std::u16string_view key);
platform::Error GetMasterAgent(OptionalText& out);
platform::Error GetRequestAvailable(OptionalText& out);
platform::Error SetRequestAvailable(std::u16string_view text);
platform::Error GetRequestID(OptionalText& out);
platform::Error SetRequestID(std::u16string_view id);
platform::Error GetMALastCreatedJSONNum(std::uint32_t& out);  // fallback 1; an error when it cannot be read
platform::Error SetMALastCreatedJSONNum(std::uint32_t number);
platform::Error GetMALastCreatedZIPNum(std::uint32_t& out);  // the same
platform::Error SetMALastCreatedZIPNum(std::uint32_t number);
platform::Error GetConfigInterval(std::uint32_t& out);         // fallback 30, seconds
platform::Error GetWriteInterval(std::uint32_t& out);          // fallback 300, seconds
platform::Error GetMaxFilesInDir(std::uint32_t& out);          // fallback 1500
platform::Error GetMaxFilestobeSend(std::uint32_t& out);       // fallback 1
platform::Error GetSysInfoInterval(std::uint32_t& out);        // fallback 55
platform::Error GetDataCollectionTimeout(std::uint32_t& out);  // fallback 360, minutes

// SystemDetails
platform::Error GetKVAgentResourceID(OptionalText& out);

}  // namespace kv

#include "foundation/registry_store.h"

#include <cstring>
#include <span>
#include <vector>

#include "foundation/log.h"
#include "foundation/registry_failure.h"
#include "foundation/system_error.h"

namespace kv {

namespace {

using platform::Error;
using platform::OwnedRegistryKey;
using platform::RegistryType;
using platform::RootKey;
namespace error = platform::error;

/// Stands for a name or data that cannot be left out: the default value's name, the empty text.
constexpr std::u16string_view placeholder = u"--";

/// Zero bytes behind a text, so that one stored without its terminator, or with half of it, ends all the same.
constexpr std::size_t spareBytes = 50;

/// How often a value is asked for that keeps growing between the two questions.
constexpr int mostQueries = 10;

/// Reads size bytes into a zeroed buffer with room to spare; the text ends at the first zero character. moreData when
/// the value has grown.
Error QueryText(platform::RegistryKey key, std::u16string_view valueName, std::size_t size, OptionalText& outText) {
    std::u16string text((size + spareBytes) / sizeof(char16_t), u'\0');
    const Error result =
        platform::Registry().RegQueryValueExW(key, valueName, nullptr, reinterpret_cast<std::byte*>(text.data()), size);
    if (result != error::success) return result;
    text.resize(std::char_traits<char16_t>::length(text.c_str()));
    outText = std::move(text);
    return error::success;
}

/// The 32 bits of a decimal number, with a sign or without; absent when the text is not a number or does not fit. An
/// empty text is 0.
std::optional<std::uint32_t> DwordOfDecimal(std::u16string_view text) {
    const bool negative = text.starts_with(u'-');
    if (negative || text.starts_with(u'+')) text.remove_prefix(1);
    const std::int64_t limit = negative ? -std::int64_t{INT32_MIN} : std::int64_t{UINT32_MAX};
    std::int64_t number = 0;
    for (const char16_t digit : text) {
        if (digit < u'0' || digit > u'9') return std::nullopt;
        number = number * 10 + (digit - u'0');
        if (number > limit) return std::nullopt;
    }
    return static_cast<std::uint32_t>(negative ? -number : number);
}

/// The bytes to store. A text takes half of its terminator along, and a list of texts thirteen zero bytes: those are
/// the sizes that the readers of these values know. Absent when the data is not a number and has to be one.
std::optional<std::vector<std::byte>> StoredBytes(std::u16string_view data, RegistryType type) {
    if (type == RegistryType::dword) {
        const std::optional<std::uint32_t> number = DwordOfDecimal(data);
        if (!number) return std::nullopt;
        std::vector<std::byte> bytes(sizeof *number);
        std::memcpy(bytes.data(), &*number, bytes.size());
        return bytes;
    }
    const std::span<const std::byte> text = std::as_bytes(std::span(data));
    std::vector<std::byte> bytes(text.begin(), text.end());
    bytes.resize(text.size() + (type == RegistryType::multiText ? 13 : 1));
    return bytes;
}

Error StoreValue(RootKey root, std::u16string_view subKey, std::u16string_view valueName,
                 const std::vector<std::byte>& bytes, RegistryType type, Error& openFailure) {
    OwnedRegistryKey key;
    openFailure = platform::Registry().RegOpenKeyExW(root, subKey, platform::RegistryAccess::allAccess, key.Place());
    if (openFailure != error::success) return openFailure;
    return platform::Registry().RegSetValueExW(key.get(), valueName, type, bytes.data(), bytes.size());
}

void LogWriteFailure(Error failure, std::u16string_view subKey, std::u16string_view valueName, std::u16string_view data,
                     RegistryType type) {
    Log1("\t writeValue:  Function WriteValue failure!:%d\n", failure);
    Log1("\t writeValue:  Subkey: %s \n", subKey);
    Log1("\t writeValue:  Valuename: %s \n", valueName);
    Log1("\t writeValue:  Valuedata: %s \n", data);
    Log1("\t writeValue:  Datatype: %d \n", type);
    LogLastSystemError(failure);
}

Error ReadText(std::u16string_view subKey, std::u16string_view valueName, OptionalText& out) {
    return ReadRegSZ(RootKey::localMachine, subKey, valueName, out);
}

Error WriteText(std::u16string_view subKey, std::u16string_view valueName, std::u16string_view text) {
    return writeValue(RootKey::localMachine, subKey, valueName, text, RegistryType::text);
}

Error WriteNumber(std::u16string_view subKey, std::u16string_view valueName, std::uint32_t number) {
    return writeValue(RootKey::localMachine, subKey, valueName, DecimalText(number), RegistryType::dword);
}

/// True when the value could be read.
bool ReadNumber(std::u16string_view subKey, std::u16string_view valueName, std::uint32_t& out, std::uint32_t fallback) {
    out = fallback;
    return ReadDwordRegistryData(RootKey::localMachine, subKey, valueName, out) == error::success;
}

/// An absent number and a value of another size count as 1. One that cannot be read now may be any number.
Error ReadLastUsed(std::u16string_view valueName, std::uint32_t& out) {
    out = 1;
    const Error result = ReadDwordRegistryData(RootKey::localMachine, monitoringKeyPath, valueName, out);
    return IsGone(result) || result == error::moreData ? error::success : result;
}

}  // namespace

Error ReadRegSZ(RootKey root, std::u16string_view subKey, std::u16string_view valueName, OptionalText& outText) {
    Log4("\t Inside ReadRegSZ() \n");
    outText.reset();
    OwnedRegistryKey key;
    const Error opened =
        platform::Registry().RegOpenKeyExW(root, subKey, platform::RegistryAccess::queryValue, key.Place());
    if (opened != error::success) {
        Log1("ReadRegSZ: Error while opening registry key for serverName %d \n", opened);
        return opened;
    }
    Error result = error::moreData;
    for (int query = 0; query < mostQueries && result == error::moreData; ++query) {
        std::size_t size = 0;
        result = platform::Registry().RegQueryValueExW(key.get(), valueName, nullptr, nullptr, size);
        if (result != error::success || size == 0) return result;
        result = QueryText(key.get(), valueName, size, outText);
    }
    if (result != error::success) Log1("ReadRegSZ: Error while reading DWORD value! %d \n", result);
    return result;
}

Error ReadDwordRegistryData(RootKey root, std::u16string_view subKey, std::u16string_view valueName,
                            std::uint32_t& outNumber) {
    Log4("\t Inside ReadDwordRegistryData() \n");
    OwnedRegistryKey key;
    const Error opened =
        platform::Registry().RegOpenKeyExW(root, subKey, platform::RegistryAccess::queryValue, key.Place());
    if (opened != error::success) {
        Log1("ReadDwordRegistryData: Error while opening registry key for %s,%s : %d \n", subKey, valueName, opened);
        return opened;
    }
    std::uint32_t word = outNumber;  // a shorter value fills its low bytes only
    std::size_t size = sizeof word;
    const Error result =
        platform::Registry().RegQueryValueExW(key.get(), valueName, nullptr, reinterpret_cast<std::byte*>(&word), size);
    if (result != error::success) {
        Log1("ReadDwordRegistryData: Error while reading DWORD value of %s : %d \n", valueName, result);
        return result;
    }
    outNumber = word;
    return error::success;
}

Error LookUpText(std::u16string_view subKey, std::u16string_view valueName, OptionalText& outText) {
    outText.reset();
    OwnedRegistryKey key;
    const Error opened = platform::Registry().RegOpenKeyExW(RootKey::localMachine, subKey,
                                                            platform::RegistryAccess::queryValue, key.Place());
    if (opened != error::success) return opened;
    Error result = error::moreData;
    for (int query = 0; query < mostQueries && result == error::moreData; ++query) {
        RegistryType type = RegistryType::none;
        std::size_t size = 0;
        result = platform::Registry().RegQueryValueExW(key.get(), valueName, &type, nullptr, size);
        if (result != error::success) return result;
        if (type != RegistryType::text && type != RegistryType::expandableText) return error::invalidData;
        result = QueryText(key.get(), valueName, size, outText);
    }
    return result;
}

Error LookUpNumber(std::u16string_view subKey, std::u16string_view valueName, std::uint32_t& outNumber) {
    OwnedRegistryKey key;
    Error result = platform::Registry().RegOpenKeyExW(RootKey::localMachine, subKey,
                                                      platform::RegistryAccess::queryValue, key.Place());
    if (result != error::success) return result;
    std::uint32_t word = 0;
    std::size_t size = sizeof word;
    RegistryType type{};
    result =
        platform::Registry().RegQueryValueExW(key.get(), valueName, &type, reinterpret_cast<std::byte*>(&word), size);
    if (result == error::success && type != RegistryType::dword) result = error::invalidData;
    if (result == error::success) outNumber = word;
    return result;
}

Error writeValue(RootKey root, std::u16string_view subKey, std::u16string_view valueName, std::u16string_view data,
                 RegistryType type) {
    Log4("\t Inside writeValue() \n");
    if (valueName == placeholder) {
        Log2("writeValue :: going to add the (default) value \n");
        valueName = {};
    }
    if (data == placeholder) {
        Log2("writeValue :: going to add the value data as 0 value \n");
        data = {};
    }
    const std::optional<std::vector<std::byte>> bytes = StoredBytes(data, type);
    if (!bytes) {
        LogWriteFailure(error::invalidData, subKey, valueName, data, type);
        return error::invalidData;
    }
    if (const Error failure = addRegistryKey(root, subKey)) {
        Log1("writeValue:  WriteValue failure during key creation! %d \n", failure);
        return failure;
    }
    Error openFailure = error::success;
    const Error result = StoreValue(root, subKey, valueName, *bytes, type, openFailure);
    if (openFailure != error::success) {
        Log1("writeValue:  Key open failure! %d \n", openFailure);
    } else if (result != error::success) {
        LogWriteFailure(result, subKey, valueName, data, type);
    } else {
        LogLastSystemError(error::success);  // marks every write in the log
    }
    return result;
}

Error addRegistryKey(RootKey root, std::u16string_view subKey) {
    Log4("\t Inside addRegistryKey() \n");
    OwnedRegistryKey key;
    platform::RegistryDisposition disposition = platform::RegistryDisposition::opened;
    const Error result = platform::Registry().RegCreateKeyExW(root, subKey, platform::RegistryAccess::allAccess,
                                                              key.Place(), disposition);
    if (result != error::success) {
        Log1("addRegistryKey:  Create registry key \"%s\" function failed: %d \n", subKey, result);
        LogLastSystemError(result);
    } else if (disposition == platform::RegistryDisposition::opened) {
        Log3("addRegistryKey:  Opened already existing key! \n");
    } else {
        Log3("addRegistryKey:  Create registry key function successfull: %d \n", result);
    }
    return result;
}

Error GetKVAgentInstallDir(OptionalText& out) { return ReadText(agentKeyPath, u"KVAgentInstallDir", out); }
Error GetCustomerName(OptionalText& out) { return ReadText(agentKeyPath, u"CustomerName", out); }
Error GetRemoteOfficeName(OptionalText& out) { return ReadText(agentKeyPath, u"RemoteOfficeName", out); }
Error GetEnableSendAgentStatus(OptionalText& out) { return ReadText(agentKeyPath, u"EnableSendAgentStatus", out); }
Error GetProxyServerName(OptionalText& out) { return ReadText(agentKeyPath, u"ProxyServerName", out); }
Error GetProxyUserName(OptionalText& out) { return ReadText(agentKeyPath, u"ProxyUserName", out); }
Error GetProxyByPass(OptionalText& out) { return ReadText(agentKeyPath, u"ProxyByPass", out); }
Error GetProxyPassword(OptionalText& out) { return ReadText(agentKeyPath, u"ProxyPassword", out); }

Error GetKVServerName(OptionalText& out) { return ReadText(serverInfoKeyPath, u"KVServerName", out); }
Error GetKVServerFlatName(OptionalText& out) { return ReadText(serverInfoKeyPath, u"KVServerFlatName", out); }
Error GetKVServerIPAddress(OptionalText& out) { return ReadText(serverInfoKeyPath, u"KVServerIPAddress", out); }
Error GetKVServerSecurePort(OptionalText& out) { return ReadText(serverInfoKeyPath, u"KVServerSecurePort", out); }
Error GetKVServerProtocol(OptionalText& out) { return ReadText(serverInfoKeyPath, u"KVServerProtocol", out); }
Error GetKVLastAccessName(OptionalText& out) { return ReadText(serverInfoKeyPath, u"KVLastAccessName", out); }

Error GetKVServerPinnedKey(OptionalText& out) { return LookUpText(serverInfoKeyPath, u"KVServerPinnedKey", out); }
Error GetKVServerCAFile(OptionalText& out) { return LookUpText(serverInfoKeyPath, u"KVServerCAFile", out); }
Error GetKVServerVerify(OptionalText& out) { return LookUpText(serverInfoKeyPath, u"KVServerVerify", out); }

Error GetOCAgentKey(OptionalText& out) { return ReadText(monitoringKeyPath, u"MonitoringAgentKey", out); }
Error GetMasterAgent(OptionalText& out) { return ReadText(monitoringKeyPath, u"MasterAgent", out); }
Error GetRequestAvailable(OptionalText& out) { return ReadText(monitoringKeyPath, u"RequestAvailable", out); }
Error GetRequestID(OptionalText& out) { return ReadText(monitoringKeyPath, u"RequestID", out); }
Error GetKVAgentResourceID(OptionalText& out) { return ReadText(systemDetailsKeyPath, u"KVAgentResourceID", out); }

Error SetEnableSendAgentStatus(std::u16string_view text) {
    return WriteText(agentKeyPath, u"EnableSendAgentStatus", text);
}
Error SetOCAgentKey(std::u16string_view key) { return WriteText(monitoringKeyPath, u"MonitoringAgentKey", key); }
Error SetRequestAvailable(std::u16string_view text) { return WriteText(monitoringKeyPath, u"RequestAvailable", text); }
Error SetRequestID(std::u16string_view id) { return WriteText(monitoringKeyPath, u"RequestID", id); }
Error SetMALastCreatedJSONNum(std::uint32_t number) {
    return WriteNumber(monitoringKeyPath, u"MALastCreatedJSONNum", number);
}
Error SetMALastCreatedZIPNum(std::uint32_t number) {
    return WriteNumber(monitoringKeyPath, u"MALastCreatedZIPNum", number);
}

Error GetKVServerSecIPAddress(OptionalText& out) {
    const Error result = ReadText(serverInfoKeyPath, u"KVServerSecIPAddress", out);
    if (out && out->size() < 3) out.reset();  // the writers store "--" when there is no address
    return result;
}

Error GetProxyEnabled(OptionalText& out) {
    const Error result = ReadText(agentKeyPath, u"ProxyEnabled", out);
    if (result != error::success) out = u"NO";
    return IsGone(result) ? error::success : result;
}

Error GetAgentLogLevel(std::uint32_t& out) {
    ReadNumber(agentKeyPath, u"AgentLogLevel", out, 1);
    return error::success;
}

Error GetLoggerMaxSize(std::uint32_t& out) {
    ReadNumber(agentKeyPath, u"LoggerMaxSize", out, defaultLogMaxSize);
    return error::success;
}

Error GetLoggerMaxFiles(std::uint32_t& out) {
    ReadNumber(agentKeyPath, u"LoggerMaxFiles", out, defaultLogMaxFiles);
    return error::success;
}

Error GetMALastCreatedJSONNum(std::uint32_t& out) { return ReadLastUsed(u"MALastCreatedJSONNum", out); }
Error GetMALastCreatedZIPNum(std::uint32_t& out) { return ReadLastUsed(u"MALastCreatedZIPNum", out); }

Error GetConfigInterval(std::uint32_t& out) {
    if (!ReadNumber(monitoringKeyPath, u"configInterval", out, 30)) {
        Log1("\t GetConfigInterval :: Not able to fetch the ConfigInterval.\n");
    }
    return error::success;
}

Error GetWriteInterval(std::uint32_t& out) {
    if (!ReadNumber(monitoringKeyPath, u"writeInterval", out, 300)) {
        Log1("\t GetWriteInterval :: Not able to fetch the WriteInterval.\n");
    }
    return error::success;
}

Error GetMaxFilesInDir(std::uint32_t& out) {
    if (!ReadNumber(monitoringKeyPath, u"MaxFilesInDir", out, 1500)) {
        Log1("\t GetMaxFilesInDir :: Not able to fetch the MaxFilesInDir.\n");
    }
    return error::success;
}

Error GetMaxFilestobeSend(std::uint32_t& out) {
    if (!ReadNumber(monitoringKeyPath, u"MaxFilestobeSend", out, 1)) {
        Log1("\t GetMaxFilestobeSend :: Not able to fetch the MaxFilestobeSend.\n");
    }
    return error::success;
}

Error GetSysInfoInterval(std::uint32_t& out) {
    if (!ReadNumber(monitoringKeyPath, u"SysInfoInterval", out, 55)) {
        Log1("\t GetSysInfoInterval :: Not able to fetch the SysInfoInterval.\n");
    }
    return error::success;
}

Error GetDataCollectionTimeout(std::uint32_t& out) {
    if (!ReadNumber(monitoringKeyPath, u"DataCollectionTimeout", out, 360)) {
        Log1("\t GetDataCollectionTimeout :: Not able to fetch the DataCollectionTimeout.\n");
    }
    return error::success;
}

}  // namespace kv

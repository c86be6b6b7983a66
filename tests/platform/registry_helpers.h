// Short forms of registry calls. A failure is an error number.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

#include "platform/registry.h"

namespace kv::test {

using platform::Error;
using platform::Registry;
using platform::RegistryAccess;
using platform::RegistryDisposition;
using platform::RegistryKey;
using platform::RegistryOperations;
using platform::RegistryType;
using platform::RootKey;
namespace error = platform::error;

/// key is 0 if opening failed.
inline Error Open(std::u16string_view path, RegistryKey& key, RegistryAccess access = RegistryAccess::allAccess) {
    return Registry().RegOpenKeyExW(RootKey::localMachine, path, access, key);
}

/// Makes the key if it is missing.
inline Error SetBytes(std::u16string_view path, std::u16string_view name, std::string_view data,
                      RegistryType type = RegistryType::binary, const RegistryOperations& registry = Registry()) {
    RegistryKey key = 0;
    RegistryDisposition disposition{};
    Error result = registry.RegCreateKeyExW(RootKey::localMachine, path, RegistryAccess::allAccess, key, disposition);
    if (result != error::success) return result;
    result = registry.RegSetValueExW(key, name, type, reinterpret_cast<const std::byte*>(data.data()), data.size());
    registry.RegCloseKey(key);
    return result;
}

/// The bytes of a value; "error N" if it cannot be read.
inline std::string GetBytes(std::u16string_view path, std::u16string_view name) {
    RegistryKey key = 0;
    std::string data(4096, '\0');
    std::size_t size = data.size();
    Error result = Open(path, key, RegistryAccess::queryValue);
    if (result == error::success) {
        result = Registry().RegQueryValueExW(key, name, nullptr, reinterpret_cast<std::byte*>(data.data()), size);
        Registry().RegCloseKey(key);
    }
    return result == error::success ? data.substr(0, size) : "error " + std::to_string(result);
}

}  // namespace kv::test

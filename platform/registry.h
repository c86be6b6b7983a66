// The registry: hierarchical keys that hold named, typed values. Key and value names are compared without regard to
// case. Many processes may use one registry at once; a write is seen by the others as soon as it has returned, and a
// process that is killed in the middle of a write leaves either the old value or the new one.
//
// platform/registry_names.h says what may name a key or a value and how large data may be; anything else gives
// invalidName or invalidParameter. A handle to a key that has been deleted gives keyDeleted. busy: another process kept
// the registry locked for five seconds.
//
// Results are system error numbers, 0 for success. Callable from any thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/errors.h"
#include "platform/owned_handle.h"
#include "platform/seam.h"

namespace platform {

enum class RootKey : std::uint32_t { localMachine = 0x80000002 };

/// queryValue reads values by their names; read lists names and waits for changes, too.
enum class RegistryAccess { queryValue, read, allAccess };

enum class RegistryType : std::uint32_t {
    none = 0,
    text = 1,
    expandableText = 2,
    binary = 3,
    dword = 4,
    multiText = 7,
};

enum class RegistryDisposition : std::uint32_t { created = 1, opened = 2 };

/// An open key, which RegCloseKey closes, or 0.
using RegistryKey = std::uintptr_t;

struct RegistryOperations {
    /// Opens an existing key. fileNotFound when it does not exist; databaseCorrupt or accessDenied when the store
    /// itself cannot be read.
    std::function<Error(RootKey root, std::u16string_view subKey, RegistryAccess access, RegistryKey& key)>
        RegOpenKeyExW;

    /// Reads a value's type and bytes. With data null only the type and size are given. On the way in, size is the room
    /// in data; on the way out the value's size in bytes. moreData when the room is too small (size then says how much
    /// is needed, nothing is copied); fileNotFound when there is no such value. An empty name is the key's default
    /// value.
    std::function<Error(RegistryKey key, std::u16string_view valueName, RegistryType* type, std::byte* data,
                        std::size_t& size)>
        RegQueryValueExW;

    /// Opens a key and creates it, and every key above it, where it is missing.
    std::function<Error(RootKey root, std::u16string_view subKey, RegistryAccess access, RegistryKey& key,
                        RegistryDisposition& disposition)>
        RegCreateKeyExW;

    /// Stores a value, replacing one of the same name. Bytes are kept as they are.
    std::function<Error(RegistryKey key, std::u16string_view valueName, RegistryType type, const std::byte* data,
                        std::size_t size)>
        RegSetValueExW;

    std::function<Error(RegistryKey key)> RegCloseKey;

    // The operations from here on serve the registry tool; the agent itself does not call them.

    /// Names of the keys directly under a key, and of its values, in order of name.
    std::function<Error(RegistryKey key, std::vector<std::u16string>& names)> RegEnumKeyExW;
    std::function<Error(RegistryKey key, std::vector<std::u16string>& names)> RegEnumValueW;

    /// Deletes a value; fileNotFound when it does not exist.
    std::function<Error(RegistryKey key, std::u16string_view valueName)> RegDeleteValueW;

    /// Deletes a key with all keys and values below it; fileNotFound when it does not exist, accessDenied for the root
    /// itself. On Windows the keys go one by one: after a failure some of them may be gone.
    std::function<Error(RootKey root, std::u16string_view subKey)> RegDeleteTreeW;

    /// Waits until something may have changed in the registry, in this process or another, since the last call on this
    /// handle; waitTimeout when the time is over. The first call on a handle returns at once, so nothing is missed
    /// between reading and waiting. One thread at a time waits on a handle; a wait may end early.
    std::function<Error(RegistryKey key, std::uint32_t milliseconds)> RegNotifyChangeKeyValue;
};

inline const RegistryOperations& Registry() { return CurrentOperations<RegistryOperations>(); }

inline Error CloseRegistryKey(RegistryKey key) { return Registry().RegCloseKey(key); }
using OwnedRegistryKey = OwnedHandle<RegistryKey, CloseRegistryKey>;

}  // namespace platform

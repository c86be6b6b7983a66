#include "tools/kvreg/registry_tree.h"

#include <utility>

#include "foundation/registry_failure.h"

namespace kv {

namespace {

using platform::Error;
using platform::OwnedRegistryKey;
using platform::RegistryAccess;
using platform::RootKey;
namespace error = platform::error;

Error OpenKey(std::u16string_view path, RegistryAccess access, OwnedRegistryKey& key) {
    return platform::Registry().RegOpenKeyExW(RootKey::localMachine, path, access, key.Place());
}

/// Tries again with more room as long as the value does not fit, because it may grow in between.
Error QueryValue(platform::RegistryKey key, std::u16string_view name, RegFileValue& value) {
    value.name = name;
    std::size_t size = 0;
    Error result = error::moreData;
    while (result == error::moreData) {
        value.data.resize(size + 1);  // without room the query would only give the size
        size = value.data.size();
        result = platform::Registry().RegQueryValueExW(key, name, &value.type, value.data.data(), size);
    }
    value.data.resize(result == error::success ? size : 0);
    return result;
}

Error ReadSubtree(const std::u16string& path, RegFile& tree, std::u16string& failedAt) {
    KeyContents contents;
    if (const Error failure = ReadKey(path, contents)) {
        failedAt = path;
        return failure;
    }
    tree.push_back({.path = path, .values = std::move(contents.values)});
    for (const std::u16string& name : contents.subkeys) {
        const Error failure = ReadSubtree(path.empty() ? name : path + u'\\' + name, tree, failedAt);
        if (failure != error::success && !IsGone(failure)) return failure;
    }
    return error::success;
}

Error MakeKey(std::u16string_view path) {
    OwnedRegistryKey key;
    platform::RegistryDisposition disposition{};
    return platform::Registry().RegCreateKeyExW(RootKey::localMachine, path, RegistryAccess::allAccess, key.Place(),
                                                disposition);
}

Error ApplyKey(const RegFileKey& key) {
    if (key.deleted) {
        const Error result = platform::Registry().RegDeleteTreeW(RootKey::localMachine, key.path);
        return IsGone(result) ? error::success : result;
    }
    if (const Error failure = MakeKey(key.path)) return failure;
    for (const RegFileValue& value : key.values) {
        Error result = value.deleted ? DeleteValue(key.path, value.name) : WriteValue(key.path, value);
        if (value.deleted && IsGone(result)) result = error::success;
        if (result != error::success) return result;
    }
    return error::success;
}

}  // namespace

Error ReadKey(std::u16string_view path, KeyContents& contents) {
    OwnedRegistryKey key;
    if (const Error failure = OpenKey(path, RegistryAccess::read, key)) return failure;
    std::vector<std::u16string> names;
    Error result = platform::Registry().RegEnumValueW(key.get(), names);
    for (std::size_t i = 0; i < names.size() && result == error::success; ++i) {
        RegFileValue value;
        result = QueryValue(key.get(), names[i], value);
        if (result == error::success) contents.values.push_back(std::move(value));
        if (result == error::fileNotFound) result = error::success;
    }
    return result == error::success ? platform::Registry().RegEnumKeyExW(key.get(), contents.subkeys) : result;
}

Error ReadValue(std::u16string_view path, std::u16string_view name, RegFileValue& value) {
    OwnedRegistryKey key;
    const Error failure = OpenKey(path, RegistryAccess::read, key);
    return failure != error::success ? failure : QueryValue(key.get(), name, value);
}

Error ReadTree(std::u16string_view path, RegFile& tree, std::u16string& failedAt) {
    tree.clear();
    return ReadSubtree(std::u16string(path), tree, failedAt);
}

Error WriteValue(std::u16string_view path, const RegFileValue& value) {
    if (const Error failure = MakeKey(path)) return failure;
    OwnedRegistryKey key;
    if (const Error failure = OpenKey(path, RegistryAccess::allAccess, key)) return failure;
    return platform::Registry().RegSetValueExW(key.get(), value.name, value.type, value.data.data(), value.data.size());
}

Error DeleteValue(std::u16string_view path, std::u16string_view name) {
    OwnedRegistryKey key;
    const Error failure = OpenKey(path, RegistryAccess::allAccess, key);
    return failure != error::success ? failure : platform::Registry().RegDeleteValueW(key.get(), name);
}

Error ApplyRegFile(const RegFile& file, std::u16string& failedAt) {
    for (const RegFileKey& key : file) {
        if (const Error failure = ApplyKey(key)) {
            failedAt = key.path;
            return failure;
        }
    }
    return error::success;
}

}  // namespace kv

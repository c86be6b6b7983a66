// Whole trees of registry keys, read and written through the platform's registry. Paths are below HKEY_LOCAL_MACHINE;
// results are system error numbers.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "platform/registry.h"
#include "tools/kvreg/reg_file.h"

namespace kv {

struct KeyContents {
    std::vector<std::u16string> subkeys;  // names, in order
    std::vector<RegFileValue> values;     // in order of name
};

/// Reads one key into empty contents. What another process deletes meanwhile is left out.
platform::Error ReadKey(std::u16string_view path, KeyContents& contents);

/// Reads one value; fileNotFound when the key or the value is missing.
platform::Error ReadValue(std::u16string_view path, std::u16string_view name, RegFileValue& value);

/// Reads a key and all below it, parents first; fileNotFound when the key does not exist. Stops at the first failure,
/// and failedAt then is the path of the key that could not be read.
platform::Error ReadTree(std::u16string_view path, RegFile& tree, std::u16string& failedAt);

/// Stores a value. Makes the key if it is missing.
platform::Error WriteValue(std::u16string_view path, const RegFileValue& value);

/// Deletes a value; fileNotFound when the key or the value is missing.
platform::Error DeleteValue(std::u16string_view path, std::u16string_view name);

/// Applies a .reg file from the top: makes keys, stores values, and deletes what it says to delete, if that exists.
/// Stops at the first failure, and failedAt then is the key's path.
platform::Error ApplyRegFile(const RegFile& file, std::u16string& failedAt);

}  // namespace kv

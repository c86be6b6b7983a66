// What kvreg thinks of keys, and of values under the agent's key by the table of settings. Paths are below
// HKEY_LOCAL_MACHINE; under any other key every value is right.
#pragma once

#include <string>
#include <string_view>

#include "tools/kvreg/reg_file.h"

namespace kv {

/// UsageError when the value is a setting of the agent and the agent could not use it.
void RefuseFault(std::u16string_view path, const RegFileValue& value);

/// UsageError when a path is that of an agent's key whose backslashes have become slashes or have gone, as a shell
/// takes them away outside quotes.
void RefuseKeySlip(std::u16string_view path);

/// A warning on standard error for such a path, for another one with slashes in the place of backslashes, and for one
/// beside the agent's key with nearly its name.
void WarnOfKey(std::u16string_view path);

/// For a path that is not one because of its backslashes, to go on from that: the one that was probably meant. Else
/// empty.
std::string BackslashHint(std::u16string_view path);

/// A warning on standard error when the agent does not know a value of that name, or its data is odd.
void WarnOfValue(std::u16string_view path, const RegFileValue& value);

/// A warning on standard error, with the line of the file that has this name, for each such key, and for each value
/// that the agent does not know or could not use.
void WarnOfFile(const RegFile& file, const std::string& name);

}  // namespace kv

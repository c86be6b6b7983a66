// What kvreg thinks of values under the agent's key by the table of settings. Paths are below HKEY_LOCAL_MACHINE; under
// any other key every value is right.
#pragma once

#include <string>
#include <string_view>

#include "tools/kvreg/reg_file.h"

namespace kv {

/// A warning on standard error; nothing for an empty text.
void Warn(const std::string& text);

/// The setting that was probably meant by the name of a value in a key of the agent, as "did you mean ...?"; empty when
/// the agent knows that value, and when none is near.
std::string NameHint(std::u16string_view path, std::u16string_view name);

/// UsageError when the value is a setting of the agent and the agent could not use it.
void RefuseFault(std::u16string_view path, const RegFileValue& value);

/// A warning on standard error when the agent does not know a value of that name, or its data is odd.
void WarnOfValue(std::u16string_view path, const RegFileValue& value);

/// A warning on standard error, with the line of the file that has this name, for each odd key, and for each value
/// that the agent does not know or could not use.
void WarnOfFile(const RegFile& file, const std::string& name);

}  // namespace kv

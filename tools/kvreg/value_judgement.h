// What kvreg thinks of values under the agent's key, by the table of settings. Paths are below HKEY_LOCAL_MACHINE;
// under any other key everything is right.
#pragma once

#include <string_view>

#include "tools/kvreg/reg_file.h"

namespace kv {

/// UsageError when the value is a setting of the agent and the agent could not use it.
void RefuseFault(std::u16string_view path, const RegFileValue& value);

/// A warning on standard error when the agent does not know a value of that name.
void WarnOfName(std::u16string_view path, std::u16string_view name);

/// A warning on standard error for each value that the agent does not know or could not use.
void WarnOfFile(const RegFile& file);

}  // namespace kv

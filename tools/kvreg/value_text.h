// Registry values as people read them, in UTF-8.
#pragma once

#include <string>
#include <string_view>

#include "tools/kvreg/reg_file.h"

namespace kv {

/// REG_SZ and so on; REG_TYPE_n for a type without a name.
std::string TypeName(platform::RegistryType type);

/// The data for other programs: a text as it is, a number in decimal, a list with one text a line, all else in
/// hexadecimal.
std::string PlainData(const RegFileValue& value);

/// The data on one line for people: a number in both bases, a list of texts with \0 between them, control characters
/// escaped.
std::string DataInLine(const RegFileValue& value);

/// A value's name on one line; "(Default)" for that of the default value.
std::string NameInLine(std::u16string_view name);

}  // namespace kv

// Registry values as people read them, in UTF-8.
#pragma once

#include <string>
#include <string_view>

#include "tools/reg_file.h"

namespace kv {

/// REG_SZ and so on; REG_TYPE_n for a type without a name.
std::string TypeName(platform::RegistryType type);

/// The data for a program to take up: a text as it is, a number in decimal, a list of texts one a line, else
/// hexadecimal.
std::string PlainData(const RegFileValue& value);

/// The data in one line beside others: a number in both bases, a list of texts with \0 between them, control characters
/// escaped.
std::string DataInLine(const RegFileValue& value);

/// A name in one line; "(Default)" for the default value's.
std::string NameInLine(std::u16string_view name);

}  // namespace kv

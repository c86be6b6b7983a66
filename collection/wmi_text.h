// How a WMI query's values and failures read in a record.
#pragma once

#include <string>
#include <string_view>

#include "platform/wmi.h"

namespace kv {

/// The text of one property's value. NULL is "-"; truth values are "True" and "False"; a 16-bit integer reads as
/// unsigned; a real number has four places, at least ten and at most 31 characters, whatever is behind these being
/// cut; a byte below 0x20 is a number and any other a character in single quotes; a text is itself. Dates, arrays and
/// what has no value at all are "<conversion error>".
std::u16string VariantToString(const platform::Variant& value);

/// "FAILED:text ERRORCODE:code MESSAGE:message", with the code in hexadecimal. The message, with its line break, is the
/// system's for the code, else that of WMI's own library, else empty.
std::u16string FormatWMIError(platform::WmiStatus code, std::u16string_view text);

}  // namespace kv

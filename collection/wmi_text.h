// The texts of a WMI query's values and failures in a record.
#pragma once

#include <string>
#include <string_view>

#include "platform/wmi.h"

namespace kv {

/// The text of one property's value. NULL is "-". Truth values are "True" and "False". A 16-bit integer is shown as
/// unsigned. A real number has four places and ten to 31 characters; what is longer is cut. A byte below 0x20 is a
/// number, any other a character in single quotes. A text is itself. Dates, arrays and what has no value at all are
/// "<conversion error>".
std::u16string VariantToString(const platform::Variant& value);

/// "FAILED:text ERRORCODE:code MESSAGE:message", with the code in hexadecimal. The message is the system's for the
/// code, with its line break; else that of WMI's own library; else empty.
std::u16string FormatWMIError(platform::WmiStatus code, std::u16string_view text);

/// What a status means, in the system's words or in those of WMI's own library; empty where neither knows it.
std::u16string WmiStatusText(platform::WmiStatus code);

}  // namespace kv

// Values other than OIDs: content bytes to numbers and addresses, numbers to text. A text is new and NUL-terminated; it
// is null, after an engine line at level 1, when memory ran out. Nothing here throws.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

#include "snmp/narrow_text.h"

namespace kv::snmp {

/// A decimal number with an optional sign, which wraps at 32 bits. An empty text is 0, any other text -1.
std::int32_t ConvertTextToInteger(std::string_view text);

/// Up to four bytes, sign-extended from the first one; 0 without bytes, -1 for more than four.
std::int32_t ConvertToInteger(const std::uint8_t* bytes, std::int32_t length);

/// All bytes, of which only the last four count.
std::uint32_t ConvertToUnsignedInteger(const std::uint8_t* bytes, std::int32_t length);

/// All bytes, of which only the last eight count. words: high, low.
void ConvertToCounter64(std::uint32_t* words, const std::uint8_t* bytes, std::int32_t length);

std::uint64_t ConvertToULongLongFromCounter64(std::uint32_t high, std::uint32_t low);

/// Decimal text, with its length in characters.
NarrowText ConvertToStringFromInteger(const std::int32_t* value, std::int32_t* length);
NarrowText ConvertToStringFromUnsignedInteger(const std::uint32_t* value, std::int32_t* length);

/// Decimal text of a signed number: from 2^63 up it is negative.
NarrowText ConvertToStringFromCounter64(const std::uint32_t* words);

/// Writes the entries from first to before end as "10.0.0.1", and a terminator. Each entry takes at most four
/// characters; of one above 999 only the last three digits are written.
void ConvertToIpAddressFromOid(char* text, const std::uint32_t* entries, std::int32_t first, std::int32_t end);

/// The four bytes of a dotted address. Gives the count of parts; if that is not 4, nothing is stored, and an engine
/// line says so.
std::int32_t ConvertToIpAddFromString(std::uint8_t* bytes, std::string_view text, std::size_t length);

/// Writes trace lines, one for each byte; format prints one number, as in "0x%02x\t".
void PrintStream(const std::uint8_t* bytes, std::int32_t length, const char* format);

}  // namespace kv::snmp

// Values other than OIDs: content bytes to numbers and addresses, numbers to text. Texts are new and NUL-terminated;
// one that is null means that memory ran out, after an engine line at level 1.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

#include "snmp/narrow_text.h"

namespace kv::snmp {

/// A number of digits with an optional sign, in 32 bits, wrapping; an empty text is 0, and any other text -1.
std::int32_t ConvertTextToInteger(std::string_view text);

/// Up to four bytes, sign-extended from the first; -1 for more. Without bytes 0.
std::int32_t ConvertToInteger(const std::uint8_t* bytes, std::int32_t length);

/// All bytes, of which the last four stay.
std::uint32_t ConvertToUnsignedInteger(const std::uint8_t* bytes, std::int32_t length);

/// The last eight bytes at most: of nine the first is dropped. words: high, low.
void ConvertToCounter64(std::uint32_t* words, const std::uint8_t* bytes, std::int32_t length);

std::uint64_t ConvertToULongLongFromCounter64(std::uint32_t high, std::uint32_t low);

/// Decimal, with its length in characters.
NarrowText ConvertToStringFromInteger(const std::int32_t* value, std::int32_t* length);
NarrowText ConvertToStringFromUnsignedInteger(const std::uint32_t* value, std::int32_t* length);

/// Decimal, read as a signed number: from 2^63 upward it is negative.
NarrowText ConvertToStringFromCounter64(const std::uint32_t* words);

/// Writes the entries from first up to end, not included, as "10.0.0.1". Each takes four characters at most.
void ConvertToIpAddressFromOid(char* text, const std::uint32_t* entries, std::int32_t first, std::int32_t end);

/// The four bytes of a dotted address. Gives the count of parts; nothing is stored unless it is 4.
std::int32_t ConvertToIpAddFromString(std::uint8_t* bytes, std::string_view text, std::size_t length);

/// Trace lines, one for each byte; format has one number to print, as "0x%02x\t".
void PrintStream(const std::uint8_t* bytes, std::int32_t length, const char* format);

}  // namespace kv::snmp

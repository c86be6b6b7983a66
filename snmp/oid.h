// Object identifiers: dotted text, arrays of sub-identifiers, and the content bytes of a received value.
//
// An array belongs to whoever holds it, and its count stands beside it. A text that comes out is ASCII. Nothing here
// throws.
#pragma once

#include <cstdint>
#include <memory>
#include <string_view>

namespace kv::snmp {

using SubIds = std::unique_ptr<std::uint32_t[]>;

/// Room for the text of an OID as ConvertToStringFromOid writes it: a dot and ten digits for each sub-identifier, and a
/// terminator.
constexpr std::size_t OidTextRoom(std::int32_t count) { return static_cast<std::size_t>(count) * 11 + 1; }

/// The sub-identifiers of a text, and how many there are. An OID begins with a dot, which is skipped unseen; an address
/// (isAddress) does not. -1 with an engine line at level 1, and out null, when the text is not an OID or memory ran
/// out; 0, which callers take for an OID without sub-identifiers, when the parts do not match the dots. A
/// sub-identifier of 4294967295 is refused.
[[nodiscard]] std::int32_t ConvertToOidOrIpFromString(SubIds& out, std::string_view text, bool isAddress);

/// Writes ".1.3.6" and a terminator into text, which has OidTextRoom; always 1. A sub-identifier from 2147483648 up is
/// written as its dot alone.
std::int32_t ConvertToStringFromOid(const std::uint32_t* subIds, std::int32_t count, char* text);

/// How many dots a text of that length has, in 16 bits.
std::uint16_t GetOidLength(const char* text, std::int32_t length);

/// 1, 0 or -1. Sub-identifiers compare as unsigned numbers; a prefix comes first.
[[nodiscard]] std::int8_t CompareOid(const std::uint32_t* a, std::int32_t countA, const std::uint32_t* b,
                                     std::int32_t countB);

/// target has room for count sub-identifiers.
void CopyOid(std::uint32_t* target, const std::uint32_t* source, std::int32_t count);

/// The sub-identifiers of a value's content bytes. Null with count 0 when the bytes end in the middle of one, and when
/// memory ran out. Content that begins with 2B keeps its first two sub-identifiers; any other loses them and has zeros
/// at its end.
[[nodiscard]] SubIds DecodeOID(const std::uint8_t* bytes, std::int32_t length, std::int32_t* count);

/// A trace line with the OID.
void PrintOid(const std::uint32_t* subIds, std::int32_t count);

}  // namespace kv::snmp

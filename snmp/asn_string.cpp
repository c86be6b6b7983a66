#include <algorithm>

#include "snmp/asn.h"
#include "snmp/asn_content.h"

namespace kv::snmp {

namespace {

constexpr std::uint8_t maxUnusedBits = 7;  // of a bit string's last byte

}  // namespace

const std::uint8_t* AsnParseString(const std::uint8_t* position, std::int32_t* remaining, std::uint8_t* tag,
                                   std::uint8_t* bytes, std::size_t* size) {
    std::uint32_t length = 0;
    const std::uint8_t* content = AsnParseContent(position, *remaining, tag, &length);
    if (!content) return nullptr;
    if (length > *size) return AsnFailure("I don't support such long strings");
    std::copy_n(content, length, bytes);
    *size = length;
    return AsnPassItem(position, content, length, remaining);
}

std::uint8_t* AsnBuildString(std::uint8_t* position, std::int32_t* remaining, std::uint8_t tag,
                             const std::uint8_t* bytes, std::size_t size) {
    std::uint8_t* content = AsnBuildHeader(position, remaining, tag, static_cast<std::uint32_t>(size));
    if (!content || static_cast<std::size_t>(*remaining) < size) return nullptr;
    *remaining -= static_cast<std::int32_t>(size);
    return std::copy_n(bytes, size, content);
}

const std::uint8_t* AsnParseBitString(const std::uint8_t* position, std::int32_t* remaining, std::uint8_t* tag,
                                      std::uint8_t* bytes, std::size_t* size) {
    std::uint32_t length = 0;
    const std::uint8_t* content = AsnParseContent(position, *remaining, tag, &length);
    if (!content) return nullptr;
    if (length > *size) return AsnFailure("I don't support such long bitstrings");
    if (length == 0 || content[0] > maxUnusedBits) return AsnFailure("Invalid bitstring");
    std::copy_n(content, length, bytes);
    *size = length;
    return AsnPassItem(position, content, length, remaining);
}

std::uint8_t* AsnBuildBitString(std::uint8_t* position, std::int32_t* remaining, std::uint8_t tag,
                                const std::uint8_t* bytes, std::size_t size) {
    if (size < 1 || bytes[0] > maxUnusedBits) return AsnFailure("Building invalid bitstring");
    return AsnBuildString(position, remaining, tag, bytes, size);
}

const std::uint8_t* AsnParseNull(const std::uint8_t* position, std::int32_t* remaining, std::uint8_t* tag) {
    *tag = position[0];
    std::uint32_t length = 0;
    const std::uint8_t* content = AsnParseLength(position + 1, &length);
    if (!content) return nullptr;
    if (length != 0) return AsnFailure("Malformed NULL");
    if (AsnIsCutOff(position, content, length, *remaining)) return AsnFailure("overflow of message");
    return AsnPassItem(position, content, length, remaining);
}

std::uint8_t* AsnBuildNull(std::uint8_t* position, std::int32_t* remaining, std::uint8_t tag) {
    return AsnBuildHeader(position, remaining, tag, 0);
}

}  // namespace kv::snmp

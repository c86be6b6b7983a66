#include "snmp/asn.h"
#include "snmp/asn_content.h"
#include "snmp/toolkit_log.h"

namespace kv::snmp {

namespace {

constexpr std::uint8_t longForm = 0x80;
constexpr std::uint8_t lowBits = 0x7F;  // the length itself, or how many length bytes follow
constexpr std::uint8_t idBits = 0x1F;   // all ones: the tag goes on in more bytes
constexpr std::uint32_t maxLengthBytes = 4;
constexpr std::int32_t sequenceHeaderSize = 4;

std::uint8_t* WriteLength(std::uint8_t* position, std::uint32_t length, std::int32_t size) {
    if (size > 1) *position++ = static_cast<std::uint8_t>(longForm | (size - 1));
    if (size > 2) *position++ = static_cast<std::uint8_t>(length >> 8);
    *position++ = static_cast<std::uint8_t>(length);
    return position;
}

}  // namespace

std::nullptr_t AsnFailure(const char* line, std::int32_t level) {
    TKLOG(level, line);
    return nullptr;
}

const std::uint8_t* AsnParseLength(const std::uint8_t* position, std::uint32_t* length) {
    const std::uint8_t first = *position++;
    if ((first & longForm) == 0) {
        *length = first;
        return position;
    }
    const std::uint32_t count = first & lowBits;
    if (count == 0) return AsnFailure("We don't support indefinite lengths");
    if (count > maxLengthBytes) return AsnFailure("we can't support data lengths that long");
    std::uint32_t value = 0;
    for (std::uint32_t i = 0; i < count; ++i) value = value << 8 | *position++;
    *length = value;
    return position;
}

std::uint8_t* AsnBuildLength(std::uint8_t* position, std::int32_t* remaining, std::uint32_t length) {
    const std::int32_t size = length < 0x80 ? 1 : length < 0x100 ? 2 : 3;
    if (*remaining < size) return AsnFailure("build_length");
    *remaining -= size;
    return WriteLength(position, length, size);
}

const std::uint8_t* AsnParseHeader(const std::uint8_t* position, std::int32_t* remaining, std::uint8_t* tag) {
    if ((position[0] & idBits) == idBits) return AsnFailure("can't process ID >= 30");
    *tag = position[0];
    if (*remaining < 2) return nullptr;
    // What follows is the content in the short form, and that many length bytes in the long form: both have to be
    // there.
    if (*remaining - 1 - (position[1] & lowBits) <= 0) return nullptr;
    std::uint32_t length = 0;
    const std::uint8_t* content = AsnParseLength(position + 1, &length);
    if (!content) return nullptr;
    if (AsnIsCutOff(position, content, length, *remaining)) return AsnFailure("asn length too long");
    *remaining = static_cast<std::int32_t>(length);
    return content;
}

std::uint8_t* AsnBuildHeader(std::uint8_t* position, std::int32_t* remaining, std::uint8_t tag, std::uint32_t length) {
    if (*remaining < 1) return nullptr;
    *position = tag;
    *remaining -= 1;
    return AsnBuildLength(position + 1, remaining, length);
}

std::uint8_t* AsnBuildSequence(std::uint8_t* position, std::int32_t* remaining, std::uint8_t tag,
                               std::uint32_t length) {
    if (*remaining < sequenceHeaderSize) return nullptr;
    *position = tag;
    *remaining -= sequenceHeaderSize;
    return WriteLength(position + 1, length, sequenceHeaderSize - 1);
}

const std::uint8_t* AsnSkipHeader(const std::uint8_t* position) {
    const std::uint8_t first = position[1];
    return position + 2 + ((first & longForm) != 0 ? first & lowBits : 0);
}

}  // namespace kv::snmp

#include <bit>

#include "foundation/log.h"
#include "snmp/asn.h"
#include "snmp/asn_content.h"

namespace kv::snmp {

namespace {

constexpr std::uint8_t moreBytes = 0x80;  // another byte of the same sub-identifier follows
constexpr std::uint8_t groupBits = 0x7F;
constexpr std::int32_t bitsOfGroup = 7;
constexpr std::uint32_t firstArcFactor = 40;  // one value encodes the first two sub-identifiers: 40 a + b

/// Reads one encoded value, which the end may cut short. It wraps at 32 bits.
const std::uint8_t* ReadSubId(const std::uint8_t* position, const std::uint8_t* end, std::uint32_t* value) {
    if (*position < moreBytes) {
        *value = *position;
        return position + 1;
    }
    std::uint32_t sum = 0;
    std::uint8_t byte = moreBytes;
    while ((byte & moreBytes) != 0 && position < end) {
        byte = *position++;
        sum = sum << bitsOfGroup | (byte & groupBits);
    }
    *value = sum;
    return position;
}

std::int32_t SubIdSize(std::uint32_t value) {
    if (value <= groupBits) return 1;
    const auto bits = static_cast<std::int32_t>(std::bit_width(value | 1));
    return (bits + bitsOfGroup - 1) / bitsOfGroup;
}

std::uint8_t* WriteSubId(std::uint8_t* position, std::uint32_t value) {
    if (value <= groupBits) {
        *position = static_cast<std::uint8_t>(value);
        return position + 1;
    }
    for (std::int32_t shift = (SubIdSize(value) - 1) * bitsOfGroup; shift > 0; shift -= bitsOfGroup)
        *position++ = static_cast<std::uint8_t>(value >> shift | moreBytes);
    *position++ = value & groupBits;
    return position;
}

}  // namespace

const std::uint8_t* AsnParseObjectId(const std::uint8_t* position, std::int32_t* remaining, std::uint8_t* tag,
                                     std::uint32_t* subIds, std::int32_t* count) {
    *tag = position[0];
    if (*remaining < 2 || *count < 2) return nullptr;
    std::uint32_t length = 0;
    const std::uint8_t* content = AsnParseContent(position, *remaining, tag, &length);
    if (!content) return nullptr;
    const std::uint8_t* end = AsnPassItem(position, content, length, remaining);

    subIds[0] = 0;
    subIds[1] = 0;
    std::int32_t filled = 1;
    for (; content < end && filled < *count; ++filled) content = ReadSubId(content, end, &subIds[filled]);
    // From a value of 120 on, which a strict encoder never writes, the first sub-identifier comes out above 2.
    subIds[0] = subIds[1] / firstArcFactor;
    subIds[1] %= firstArcFactor;
    *count = filled;
    return content;
}

std::uint8_t* AsnBuildObjectId(std::uint8_t* position, std::int32_t* remaining, std::uint8_t tag,
                               const std::uint32_t* subIds, std::int32_t count) {
    if (count > asnMaxBuildSubIds) {
        Log1("\t AsnBuildObjectId :: an OID of %d sub-identifiers is not sent, %d are the most \n", count,
             asnMaxBuildSubIds);
        return nullptr;
    }
    const std::uint32_t first = count < 2 ? 0 : subIds[0] * firstArcFactor + subIds[1];
    std::int32_t size = SubIdSize(first);
    for (std::int32_t i = 2; i < count; ++i) size += SubIdSize(subIds[i]);

    std::uint8_t* next = AsnBuildHeader(position, remaining, tag, static_cast<std::uint32_t>(size));
    if (!next || *remaining < size) return nullptr;
    next = WriteSubId(next, first);
    for (std::int32_t i = 2; i < count; ++i) next = WriteSubId(next, subIds[i]);
    *remaining -= size;
    return next;
}

}  // namespace kv::snmp

// Shared by the sources of the codec: the way from an item's tag to its content, and the line of a failure.
#pragma once

#include <cstddef>
#include <cstdint>

#include "snmp/asn.h"

namespace kv::snmp {

/// Writes the line of a failure and gives the null that stands for it.
[[gnu::cold]] std::nullptr_t AsnFailure(const char* line, std::int32_t level = 1);

/// The size of an item whose header ends at content; of 64 bits, so that no length wraps.
inline std::int64_t AsnItemSize(const std::uint8_t* item, const std::uint8_t* content, std::uint32_t length) {
    return content - item + std::int64_t{length};
}

/// Whether an item goes on behind the end.
inline bool AsnIsCutOff(const std::uint8_t* item, const std::uint8_t* content, std::uint32_t length,
                        std::int32_t remaining) {
    return AsnItemSize(item, content, length) > remaining;
}

/// Steps to the content of an item that lies within remaining, which stays as it is.
inline const std::uint8_t* AsnParseContent(const std::uint8_t* item, std::int32_t remaining, std::uint8_t* tag,
                                           std::uint32_t* length) {
    *tag = item[0];
    const std::uint8_t* content = AsnParseLength(item + 1, length);
    if (!content) return nullptr;
    return AsnIsCutOff(item, content, *length, remaining) ? AsnFailure("overflow of message") : content;
}

/// Takes an item that lies within remaining off it and gives the position behind the item.
inline const std::uint8_t* AsnPassItem(const std::uint8_t* item, const std::uint8_t* content, std::uint32_t length,
                                       std::int32_t* remaining) {
    *remaining -= static_cast<std::int32_t>(AsnItemSize(item, content, length));
    return content + length;
}

}  // namespace kv::snmp

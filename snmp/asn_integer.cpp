#include <bit>

#include "snmp/asn.h"
#include "snmp/asn_content.h"

namespace kv::snmp {

namespace {

constexpr std::size_t wordSize = 4;  // bytes
constexpr std::size_t counter64Size = 8;

/// Big-endian, extended by the top bit of the first byte; bytes before the last four fall off. The first byte is looked
/// at even when there is no content, so an empty integer is 0 or -1 depending on what follows it.
std::uint32_t FoldWord(const std::uint8_t* content, std::uint32_t length) {
    std::uint32_t value = (content[0] & 0x80) != 0 ? ~std::uint32_t{0} : 0;
    for (std::uint32_t i = 0; i < length; ++i) value = value << 8 | content[i];
    return value;
}

/// Writes the low bytes of a value. Above the eighth they are 00.
std::uint8_t* WriteContent(std::uint8_t* content, std::int32_t* remaining, std::uint64_t value, std::int32_t size) {
    for (std::int32_t i = size; i > 0; value >>= 8) content[--i] = static_cast<std::uint8_t>(value);
    *remaining -= size;
    return content + size;
}

/// The content bytes of the shortest two's complement form: the bits that the value needs, and one for the sign.
std::int32_t ContentSize(std::uint64_t value) { return static_cast<std::int32_t>(std::bit_width(value) / 8 + 1); }

std::uint8_t* BuildUnsigned(std::uint8_t* position, std::int32_t* remaining, std::uint8_t tag, std::uint64_t value) {
    const std::int32_t size = ContentSize(value);
    std::uint8_t* content = AsnBuildHeader(position, remaining, tag, static_cast<std::uint32_t>(size));
    if (!content || *remaining < size) return nullptr;
    return WriteContent(content, remaining, value, size);
}

enum class WordKind { withSign, withoutSign };

/// Both parsers of 32 bits. A content of five bytes is that of an unsigned value with bit 31 set, and begins with 00.
const std::uint8_t* ParseWord(const std::uint8_t* position, std::int32_t* remaining, std::uint32_t* value,
                              WordKind kind) {
    std::uint32_t length = 0;
    const std::uint8_t* content = AsnParseLength(position + 1, &length);
    if (!content) return AsnFailure("bad length");
    if (AsnIsCutOff(position, content, length, *remaining)) return AsnFailure("overflow of message");
    if (length > wordSize && !(kind == WordKind::withoutSign && length == wordSize + 1 && content[0] == 0))
        return AsnFailure("I don't support such large integers");
    *value = FoldWord(content, length);
    return AsnPassItem(position, content, length, remaining);
}

}  // namespace

const std::uint8_t* AsnParseInteger(const std::uint8_t* position, std::int32_t* remaining, std::uint8_t* tag,
                                    std::int32_t* value, std::size_t size) {
    if (size != wordSize) return AsnFailure("not long");
    *tag = position[0];
    if (*remaining < 2) return AsnFailure("bad length");
    std::uint32_t word = 0;
    const std::uint8_t* next = ParseWord(position, remaining, &word, WordKind::withSign);
    if (next) *value = static_cast<std::int32_t>(word);
    return next;
}

const std::uint8_t* AsnParseUnsigned(const std::uint8_t* position, std::int32_t* remaining, std::uint8_t* tag,
                                     std::uint32_t* value, std::size_t size) {
    if (size != wordSize) return AsnFailure("not long");
    *tag = position[0];
    return ParseWord(position, remaining, value, WordKind::withoutSign);
}

std::uint8_t* AsnBuildInteger(std::uint8_t* position, std::int32_t* remaining, std::uint8_t tag,
                              const std::int32_t* value, std::size_t size) {
    if (size != wordSize) return AsnFailure("Lengths are not equal. !!!\n", 3);
    const auto word = static_cast<std::uint32_t>(*value);
    const std::int32_t contentSize = ContentSize(*value < 0 ? ~word : word);
    std::uint8_t* content = AsnBuildHeader(position, remaining, tag, static_cast<std::uint32_t>(contentSize));
    if (!content) return AsnFailure("Data is null. !!!\n", 3);
    if (*remaining < contentSize) return AsnFailure("data length is less . !!!\n", 3);
    return WriteContent(content, remaining, word, contentSize);
}

std::uint8_t* AsnBuildUnsigned(std::uint8_t* position, std::int32_t* remaining, std::uint8_t tag,
                               const std::uint32_t* value, std::size_t size) {
    return size == wordSize ? BuildUnsigned(position, remaining, tag, *value) : nullptr;
}

std::uint8_t* AsnBuildCounter64(std::uint8_t* position, std::int32_t* remaining, std::uint8_t tag,
                                const std::uint32_t* words, std::size_t size) {
    if (size != counter64Size) return nullptr;
    return BuildUnsigned(position, remaining, tag, std::uint64_t{words[0]} << 32 | words[1]);
}

}  // namespace kv::snmp

// The part of the Basic Encoding Rules that SNMP uses, on flat byte buffers. Source of the format: ITU-T X.690, as
// narrowed by RFC 1157 and RFC 3416. Nothing here allocates except for the line of a failure, keeps a state or throws,
// and only the two routines at the end know what a variable is. Callable from any thread.
//
// All routines but AsnParseLength and AsnSkipHeader have one shape. A parser takes the read position and the count of
// bytes left, and gives the position after the item, or null. A builder takes the write position and the count of bytes
// left, and gives the position after what it wrote, or null. The count shrinks by what was consumed; AsnParseHeader
// replaces it by the length of the content, and AsnParseObjectId takes the whole item off it. A failure is final:
// nothing is repaired, the tag may be set, some bytes may be written, and the count stays as it is at that moment.
//
// Most failures leave a line at the engine's level 1, those of AsnBuildInteger at its level 3; the agent's log has such
// lines from its own level 3 on (snmp/toolkit_log.h). No line is left by a wrong tag, by an item that is cut off
// (except in a length or an integer), and by a lack of room (likewise).
//
// A few parsers look at the bytes of a length, or at one byte of content, before they know that these are there. So a
// buffer that is parsed has asnReadAhead readable bytes behind its end; they decide only the value of an integer
// without content, and the last bytes of a value in a PDU that claims more than its datagram has.
#pragma once

#include <cstddef>
#include <cstdint>

namespace kv::snmp {

/// Bytes that must be readable behind the end of what is parsed. The longest look ahead is six (tag, length byte, four
/// more). A message's own header adds six, because the count of bytes left includes it.
inline constexpr std::size_t asnReadAhead = 16;

/// The longest object identifier that a builder encodes, in sub-identifiers. A name of more than 128 in an answer is
/// not read (maxReceivedSubIds, snmp/message.h), so that more than that is asked in vain.
inline constexpr std::int32_t asnMaxBuildSubIds = 132;

/// Whole identifier octets. Those of messages are in snmp/pdu.h.
namespace tag {
inline constexpr std::uint8_t integer = 0x02;
inline constexpr std::uint8_t bitString = 0x03;
inline constexpr std::uint8_t octetString = 0x04;
inline constexpr std::uint8_t null = 0x05;
inline constexpr std::uint8_t objectId = 0x06;
inline constexpr std::uint8_t sequence = 0x30;
inline constexpr std::uint8_t ipAddress = 0x40;
inline constexpr std::uint8_t counter32 = 0x41;
inline constexpr std::uint8_t gauge32 = 0x42;
inline constexpr std::uint8_t timeTicks = 0x43;
inline constexpr std::uint8_t opaque = 0x44;
inline constexpr std::uint8_t nsapAddress = 0x45;
inline constexpr std::uint8_t counter64 = 0x46;
inline constexpr std::uint8_t uInteger32 = 0x47;
inline constexpr std::uint8_t noSuchObject = 0x80;
inline constexpr std::uint8_t noSuchInstance = 0x81;
inline constexpr std::uint8_t endOfMibView = 0x82;
}  // namespace tag

// Lengths and headers.

/// Reads a length in the short form, or in one to four length bytes, leading zeros included. Null for the indefinite
/// form and for more bytes.
[[nodiscard]] const std::uint8_t* AsnParseLength(const std::uint8_t* position, std::uint32_t* length);

/// Writes a length in one, two or three bytes, as few as it takes; a length above 65,535 loses its high bits.
[[nodiscard]] std::uint8_t* AsnBuildLength(std::uint8_t* position, std::int32_t* remaining, std::uint32_t length);

/// Steps to the content, which lies within remaining; remaining becomes the content's length. A tag whose low five bits
/// are all ones is refused and not given out; any other is, even when something is wrong behind it.
[[nodiscard]] const std::uint8_t* AsnParseHeader(const std::uint8_t* position, std::int32_t* remaining,
                                                 std::uint8_t* tag);

[[nodiscard]] std::uint8_t* AsnBuildHeader(std::uint8_t* position, std::int32_t* remaining, std::uint8_t tag,
                                           std::uint32_t length);

/// Always four bytes: tag, 82 and the length in two bytes. A constructed item begins with length 0, and is written over
/// when its length is known.
std::uint8_t* AsnBuildSequence(std::uint8_t* position, std::int32_t* remaining, std::uint8_t tag, std::uint32_t length);

/// Steps over a header that has been parsed before. Never null.
const std::uint8_t* AsnSkipHeader(const std::uint8_t* position);

// Values. The tag is given out as it is found and written as it is given. size is that of the value in bytes, 4 for an
// integer and 8 for a counter of 64 bits: any other fails. Where size goes in and out, the room goes in and the length
// comes out.

[[nodiscard]] const std::uint8_t* AsnParseInteger(const std::uint8_t* position, std::int32_t* remaining,
                                                  std::uint8_t* tag, std::int32_t* value, std::size_t size);
[[nodiscard]] const std::uint8_t* AsnParseUnsigned(const std::uint8_t* position, std::int32_t* remaining,
                                                   std::uint8_t* tag, std::uint32_t* value, std::size_t size);
[[nodiscard]] std::uint8_t* AsnBuildInteger(std::uint8_t* position, std::int32_t* remaining, std::uint8_t tag,
                                            const std::int32_t* value, std::size_t size);
[[nodiscard]] std::uint8_t* AsnBuildUnsigned(std::uint8_t* position, std::int32_t* remaining, std::uint8_t tag,
                                             const std::uint32_t* value, std::size_t size);

/// words: the high 32 bits, then the low ones.
[[nodiscard]] std::uint8_t* AsnBuildCounter64(std::uint8_t* position, std::int32_t* remaining, std::uint8_t tag,
                                              const std::uint32_t* words, std::size_t size);

[[nodiscard]] const std::uint8_t* AsnParseString(const std::uint8_t* position, std::int32_t* remaining,
                                                 std::uint8_t* tag, std::uint8_t* bytes, std::size_t* size);
[[nodiscard]] std::uint8_t* AsnBuildString(std::uint8_t* position, std::int32_t* remaining, std::uint8_t tag,
                                           const std::uint8_t* bytes, std::size_t size);

/// The first byte of a bit string counts the unused bits of the last one, at most 7, and belongs to the value.
[[nodiscard]] const std::uint8_t* AsnParseBitString(const std::uint8_t* position, std::int32_t* remaining,
                                                    std::uint8_t* tag, std::uint8_t* bytes, std::size_t* size);
[[nodiscard]] std::uint8_t* AsnBuildBitString(std::uint8_t* position, std::int32_t* remaining, std::uint8_t tag,
                                              const std::uint8_t* bytes, std::size_t size);

[[nodiscard]] const std::uint8_t* AsnParseNull(const std::uint8_t* position, std::int32_t* remaining,
                                               std::uint8_t* tag);
[[nodiscard]] std::uint8_t* AsnBuildNull(std::uint8_t* position, std::int32_t* remaining, std::uint8_t tag);

/// count: the room in subIds goes in, at least 2, and the number of sub-identifiers comes out. An encoding that holds
/// more than fit is not a failure: the rest is left, and the resulting position is inside the content. Sub-identifiers
/// wrap at 32 bits.
[[nodiscard]] const std::uint8_t* AsnParseObjectId(const std::uint8_t* position, std::int32_t* remaining,
                                                   std::uint8_t* tag, std::uint32_t* subIds, std::int32_t* count);

/// An object identifier with fewer than two sub-identifiers is written as a zero byte. One with more than
/// asnMaxBuildSubIds is refused, with a line in the agent's log.
[[nodiscard]] std::uint8_t* AsnBuildObjectId(std::uint8_t* position, std::int32_t* remaining, std::uint8_t tag,
                                             const std::uint32_t* subIds, std::int32_t count);

// One variable: SEQUENCE { name OBJECT IDENTIFIER, value }.

/// Decodes the name and finds the value: valuePosition points at its tag, valueLength is the length of its content,
/// which is not looked at. remaining is that of the whole list. When a name holds more than oid has room for, the rest
/// is taken for the value.
[[nodiscard]] const std::uint8_t* SnmpParseVarBind(const std::uint8_t* position, std::uint32_t* oid,
                                                   std::int32_t* oidCount, std::uint8_t* valueTag,
                                                   std::int32_t* valueLength, const std::uint8_t** valuePosition,
                                                   std::int32_t* remaining);

/// value has the form that the builder of its tag takes; valueLength is its size in bytes. Neither counts when the tag
/// stands for a null value; otherwise a negative length and a tag without a builder are refused, and only a value
/// without bytes may be null.
[[nodiscard]] std::uint8_t* SnmpBuildVarBind(std::uint8_t* position, const std::uint32_t* oid,
                                             const std::int32_t* oidCount, std::uint8_t valueTag,
                                             std::int32_t valueLength, const void* value, std::int32_t* remaining);

}  // namespace kv::snmp

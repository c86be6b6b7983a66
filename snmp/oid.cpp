#include "snmp/oid.h"

#include <algorithm>
#include <charconv>
#include <limits>
#include <new>
#include <optional>
#include <span>

#include "snmp/toolkit_log.h"
#include "snmp/value_text.h"

namespace kv::snmp {

namespace {

constexpr std::uint8_t continuation = 0x80;   // set in all bytes of a sub-identifier but its last
constexpr std::uint8_t isoOrganization = 43;  // 1.3, the first byte of nearly every OID

/// The longest part of a text in characters. A sub-identifier of 32 bits has ten digits; more than this cannot be
/// meant.
constexpr std::size_t maxPartLength = 19;

std::int32_t RefuseText(bool isAddress) {
    TKLOG(1, isAddress ? "Incorrect format of IpAddress\n" : "Incorrect format of OID\n");
    return -1;
}

/// A value that wrapped to 0 shows in its last digit; one that wrapped to -1 is taken for a failure.
std::optional<std::uint32_t> ParseSubId(std::string_view part) {
    if (part.empty() || part.size() > maxPartLength) return std::nullopt;
    const std::int32_t value = ConvertTextToInteger(part);
    if (value == -1 || (value == 0 && part.back() != '0')) return std::nullopt;
    return static_cast<std::uint32_t>(value);
}

std::span<const std::uint32_t> SubIdSpan(const std::uint32_t* subIds, std::int32_t count) {
    return {subIds, static_cast<std::size_t>(std::max(count, 0))};
}

/// Decodes what follows the first byte. False when the bytes end in the middle of a sub-identifier.
bool DecodeSubIds(std::span<const std::uint8_t> bytes, std::uint32_t* subIds) {
    std::uint32_t value = 0;
    bool isComplete = true;
    for (const std::uint8_t byte : bytes) {
        value = (value << 7) | (byte & 0x7Fu);
        isComplete = (byte & continuation) == 0;
        if (!isComplete) continue;
        TKLOG(3, "Subid is %ld\n", value);
        *subIds++ = value;
        value = 0;
    }
    return isComplete;
}

}  // namespace

std::int32_t ConvertToOidOrIpFromString(SubIds& out, std::string_view text, bool isAddress) {
    TKLOG(3, "\t Inside ConvertToOidOrIpFromString() \n");
    out.reset();
    const std::ptrdiff_t dots = std::count(text.begin(), text.end(), '.');
    if (dots < (isAddress ? 3 : 1)) return RefuseText(isAddress);
    const std::ptrdiff_t count = isAddress ? dots + 1 : dots;
    SubIds subIds(new (std::nothrow) std::uint32_t[static_cast<std::size_t>(count) + 1]);
    if (!subIds) {
        TKLOG(1, "Unable to allocate buffer !!! \n");
        return -1;
    }
    std::ptrdiff_t parts = 0;
    for (std::size_t start = isAddress ? 0 : 1; start <= text.size();) {
        const std::size_t end = std::min(text.find('.', start), text.size());
        const std::optional<std::uint32_t> subId = ParseSubId(text.substr(start, end - start));
        if (!subId) return RefuseText(isAddress);
        subIds[static_cast<std::size_t>(parts++)] = *subId;
        start = end + 1;
    }
    out = std::move(subIds);
    return parts == count ? static_cast<std::int32_t>(count) : 0;
}

std::int32_t ConvertToStringFromOid(const std::uint32_t* subIds, std::int32_t count, char* text) {
    constexpr std::uint32_t maxWritten =
        std::numeric_limits<std::int32_t>::max();  // they are divided as signed numbers
    constexpr std::ptrdiff_t maxDigits = 10;
    for (const std::uint32_t subId : SubIdSpan(subIds, count)) {
        *text++ = '.';
        if (subId < 10) {
            *text++ = static_cast<char>('0' + subId);
        } else if (subId <= maxWritten) {
            text = std::to_chars(text, text + maxDigits, subId).ptr;
        }
    }
    *text = '\0';
    return 1;
}

std::uint16_t GetOidLength(const char* text, std::int32_t length) {
    return static_cast<std::uint16_t>(CountDelimiters(text, length, '.'));
}

std::int8_t CompareOid(const std::uint32_t* a, std::int32_t countA, const std::uint32_t* b, std::int32_t countB) {
    const std::span<const std::uint32_t> left = SubIdSpan(a, countA);
    const std::span<const std::uint32_t> right = SubIdSpan(b, countB);
    const auto order = std::lexicographical_compare_three_way(left.begin(), left.end(), right.begin(), right.end());
    return order > 0 ? 1 : order < 0 ? -1 : 0;
}

void CopyOid(std::uint32_t* target, const std::uint32_t* source, std::int32_t count) {
    std::copy_n(source, count, target);
}

SubIds DecodeOID(const std::uint8_t* bytes, std::int32_t length, std::int32_t* count) {
    TKLOG(3, "\t Inside DecodeOID() \n");
    *count = 0;
    const std::span<const std::uint8_t> content(bytes, static_cast<std::size_t>(std::max(length, 0)));
    const std::span<const std::uint8_t> rest = content.empty() ? content : content.subspan(1);
    const auto continued =
        std::count_if(rest.begin(), rest.end(), [](std::uint8_t byte) { return byte >= continuation; });
    const std::size_t room = content.size() - static_cast<std::size_t>(continued) + 1;
    SubIds subIds(new (std::nothrow) std::uint32_t[room]{});
    if (!subIds) {
        TKLOG(2, "Unable to allocate buffer !!! \n");
        return nullptr;
    }
    std::uint32_t* next = subIds.get();
    if (!content.empty() && content[0] == isoOrganization) {
        *next++ = isoOrganization / 40;
        *next++ = isoOrganization % 40;
    }
    if (!DecodeSubIds(rest, next)) return nullptr;
    *count = static_cast<std::int32_t>(room);
    TKLOG(3, "The length of the oid is %d\n", *count);
    return subIds;
}

void PrintOid(const std::uint32_t* subIds, std::int32_t count) {
    if (!TkLogsAtLeast(2)) return;
    const NarrowText text(new (std::nothrow) char[OidTextRoom(std::max(count, 0))]);
    if (!text) return;
    ConvertToStringFromOid(subIds, count, text.get());
    TKLOG(2, "%s\n", text.get());
}

}  // namespace kv::snmp

#include "snmp/value_text.h"

#include <algorithm>
#include <charconv>
#include <new>

#include "snmp/toolkit_log.h"

namespace kv::snmp {

namespace {

constexpr std::size_t numberRoom = 21;  // of 64 bits in decimal, with sign and terminator
constexpr std::int32_t addressParts = 4;

/// All bytes as one big-endian number, of which only the last eight count.
std::uint64_t FoldBytes(std::uint64_t start, const std::uint8_t* bytes, std::int32_t length) {
    for (std::int32_t i = 0; i < length; ++i) start = (start << 8) | bytes[i];
    return start;
}

template <class Number>
NarrowText DecimalText(Number value, std::int32_t* length) {
    NarrowText text(new (std::nothrow) char[numberRoom]);
    if (!text) {
        TKLOG(1, "Unable to allocate buffer !!! \n");
        return nullptr;
    }
    char* end = std::to_chars(text.get(), text.get() + numberRoom - 1, value).ptr;
    *end = '\0';
    if (length) *length = static_cast<std::int32_t>(end - text.get());
    return text;
}

bool IsDigits(std::string_view text) {
    return std::all_of(text.begin(), text.end(), [](char c) { return c >= '0' && c <= '9'; });
}

}  // namespace

std::int32_t ConvertTextToInteger(std::string_view text) {
    const bool isNegative = text.starts_with('-');
    if (isNegative || text.starts_with('+')) text.remove_prefix(1);
    if (!IsDigits(text)) return -1;
    std::uint32_t value = 0;
    for (const char digit : text) value = value * 10 + static_cast<std::uint32_t>(digit - '0');
    return static_cast<std::int32_t>(isNegative ? 0 - value : value);
}

std::int32_t ConvertToInteger(const std::uint8_t* bytes, std::int32_t length) {
    if (length > 4) return -1;
    const std::uint64_t sign = length > 0 && bytes[0] >= 0x80 ? ~std::uint64_t{0} : 0;
    return static_cast<std::int32_t>(FoldBytes(sign, bytes, length));
}

std::uint32_t ConvertToUnsignedInteger(const std::uint8_t* bytes, std::int32_t length) {
    return static_cast<std::uint32_t>(FoldBytes(0, bytes, length));
}

void ConvertToCounter64(std::uint32_t* words, const std::uint8_t* bytes, std::int32_t length) {
    PrintStream(bytes, length, "0x%02x\t");
    const std::uint64_t value = FoldBytes(0, bytes, length);
    words[0] = static_cast<std::uint32_t>(value >> 32);
    words[1] = static_cast<std::uint32_t>(value);
}

std::uint64_t ConvertToULongLongFromCounter64(std::uint32_t high, std::uint32_t low) {
    return (std::uint64_t{high} << 32) | low;
}

NarrowText ConvertToStringFromInteger(const std::int32_t* value, std::int32_t* length) {
    NarrowText text = DecimalText(*value, length);
    TKLOG(2, "The value is %d\n", *value);
    TKLOG(2, "The string is %s\n", text.get());
    return text;
}

NarrowText ConvertToStringFromUnsignedInteger(const std::uint32_t* value, std::int32_t* length) {
    NarrowText text = DecimalText(*value, length);
    TKLOG(2, "The string is %s\n", text.get());
    return text;
}

NarrowText ConvertToStringFromCounter64(const std::uint32_t* words) {
    NarrowText text =
        DecimalText(static_cast<std::int64_t>(ConvertToULongLongFromCounter64(words[0], words[1])), nullptr);
    TKLOG(2, "The String is : %s\n", text.get());
    return text;
}

void ConvertToIpAddressFromOid(char* text, const std::uint32_t* entries, std::int32_t first, std::int32_t end) {
    const auto digit = [](std::uint32_t number) { return static_cast<char>('0' + number % 10); };
    char* const start = text;
    for (std::int32_t i = first; i < end; ++i) {
        if (entries[i] > 99) *text++ = digit(entries[i] / 100);
        if (entries[i] > 9) *text++ = digit(entries[i] / 10);
        *text++ = digit(entries[i]);
        *text++ = '.';
    }
    if (text > start) --text;
    *text = '\0';
}

std::int32_t ConvertToIpAddFromString(std::uint8_t* bytes, std::string_view text, std::size_t length) {
    text = text.substr(0, length);
    const auto parts = static_cast<std::int32_t>(std::count(text.begin(), text.end(), '.') + 1);
    if (parts != addressParts) {
        TKLOG(1, "Invalid length for IP address !!!\n");
        return parts;
    }
    for (std::int32_t i = 0; i < parts; ++i) {
        const std::size_t end = std::min(text.find('.'), text.size());
        bytes[i] = static_cast<std::uint8_t>(ConvertTextToInteger(text.substr(0, end)));
        text.remove_prefix(std::min(end + 1, text.size()));
    }
    return parts;
}

void PrintStream(const std::uint8_t* bytes, std::int32_t length, const char* format) {
    if (!TkLogsAtLeast(2)) return;
    for (std::int32_t i = 0; i < length; ++i) TKLOG(2, format, bytes[i]);
}

}  // namespace kv::snmp

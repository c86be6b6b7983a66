#include <algorithm>
#include <cstring>

#include "collection/snmp_query.h"
#include "foundation/log.h"
#include "platform/utf.h"

namespace kv {

namespace {

constexpr std::int32_t defaultPort = 161;
constexpr std::int32_t defaultTimeout = 5;
constexpr std::int32_t longestTimeout = 2147;  // its microseconds fit 32 bits

/// How a record is told from others in log lines.
std::u16string RecordName(const HashTable* record) {
    OptionalText id = SnmpMember(record, u"POLL_ID");
    if (!id) id = SnmpMember(record, u"AGENT_REQUEST_ID");
    return id.value_or(u"(without id)");
}

/// A number from 1 to a highest one, or with a log line what stands for any other text.
std::int32_t NumberOr(const HashTable* record, const OptionalText& text, const char* name, std::int32_t highest,
                      std::int32_t fallback) {
    const std::int32_t number = text ? ParseDecimal(*text) : 0;
    if (number >= 1 && number <= highest) return number;
    Log1("\t SNMP record %s of device %s :: The %s %s is no number from 1 to %d, %d is taken \n", RecordName(record),
         SnmpMember(record, u"DEVICE_NAME"), name, text, highest, fallback);
    return fallback;
}

}  // namespace

OptionalText SnmpMember(const HashTable* record, std::u16string_view key) {
    const HashEntry* entry = GetHashEntry(record, key);
    if (!entry) return std::nullopt;
    if (entry->type == ValueType::integer) return DecimalText(static_cast<std::int32_t>(entry->value));
    if (entry->type == ValueType::boolean) return (entry->value & 0xFF) != 0 ? u"true" : u"false";
    const char16_t* text = GetHashText(record, key);
    return text ? OptionalText(text) : std::nullopt;
}

std::u16string SnmpMemberOr(const HashTable* record, std::u16string_view key, std::u16string_view fallback) {
    if (OptionalText text = SnmpMember(record, key)) return *std::move(text);
    Log1("\t SNMP record %s of device %s :: %s is absent or no text, \"%s\" is taken \n", RecordName(record),
         SnmpMember(record, u"DEVICE_NAME"), key, fallback);
    return std::u16string(fallback);
}

std::int32_t SnmpPort(const HashTable* record) {
    return NumberOr(record, SnmpMember(record, u"SNMP_PORT"), "port", 65535, defaultPort);
}

std::int32_t SnmpTimeout(const HashTable* record, const OptionalText& seconds) {
    return NumberOr(record, seconds, "timeout", longestTimeout, defaultTimeout);
}

std::u16string SnmpValueText(const SnmpValue& value) {
    // The length counts the bytes of what may hold zero bytes, and never more than there are; elsewhere it may be less.
    const auto length = static_cast<std::size_t>(std::max(value.valueLength, 0));
    std::string_view bytes(value.value, std::max(length, std::strlen(value.value)));
    if (bytes.ends_with('\0')) bytes.remove_suffix(1);
    std::u16string text;
    if (platform::IsValidUtf8(bytes)) {
        text = platform::WideFromUtf8(bytes);
    } else {
        for (const char byte : bytes) text += static_cast<char16_t>(static_cast<unsigned char>(byte));
    }
    return ReplaceChar(text, u'\0', u'\uFFFD');
}

}  // namespace kv

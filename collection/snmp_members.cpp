#include <algorithm>
#include <cstring>

#include "collection/record_members.h"
#include "collection/snmp_query.h"
#include "foundation/log.h"
#include "platform/utf.h"

namespace kv {

namespace {

constexpr std::int32_t defaultPort = 161;
constexpr std::int32_t defaultTimeout = 5;
constexpr std::int32_t longestTimeout = 2147;  // its microseconds fit 32 bits

/// A number from 1 to a highest one, or 0.
std::int32_t NumberUpTo(std::int32_t highest, const OptionalText& text) {
    const std::int32_t number = text ? ParseDecimal(*text) : 0;
    return number >= 1 && number <= highest ? number : 0;
}

}  // namespace

std::u16string SnmpCommunity(const HashTable* record) {
    if (OptionalText text = MemberText(record, u"COMMUNITY")) return *std::move(text);
    Log1("\t %s :: COMMUNITY is absent, public is taken \n", SnmpRecordName(record));
    return u"public";
}

std::u16string SnmpRecordName(const HashTable* record) {
    const auto part = [&](std::u16string_view before, std::u16string_view key, std::u16string_view after) {
        const OptionalText text = MemberText(record, key);
        return text ? std::u16string(before) + *text + std::u16string(after) : std::u16string();
    };
    return u"device" + part(u" ", u"DEVICE_NAME", part(u":", u"SNMP_PORT", u"")) +
           part(u", agent ", u"AGENT_KEY", u"") + part(u", poll ", u"POLL_ID", u"") +
           part(u", request ", u"AGENT_REQUEST_ID", u"");
}

bool SnmpPort(const HashTable* record, std::int32_t& port) {
    if (!ContainsHashKey(record, u"SNMP_PORT"))
        Log1("\t %s :: SNMP_PORT is absent, %d is taken \n", SnmpRecordName(record), defaultPort);
    port = ContainsHashKey(record, u"SNMP_PORT") ? NumberUpTo(65535, MemberText(record, u"SNMP_PORT")) : defaultPort;
    if (port == 0)
        Log1("\t %s :: SNMP_PORT is not a number from 1 to 65535. The device is not asked \n", SnmpRecordName(record));
    return port != 0;
}

std::int32_t SnmpTimeout(const HashTable* record, const OptionalText& seconds) {
    if (const std::int32_t timeout = NumberUpTo(longestTimeout, seconds)) return timeout;
    Log1("\t %s :: The timeout \"%s\" is not a number from 1 to %d, %d is taken \n", SnmpRecordName(record),
         seconds.value_or(u""), longestTimeout, defaultTimeout);
    return defaultTimeout;
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

#include "tools/kvagentctl/snmp_hints.h"

#include <charconv>
#include <cstdint>
#include <fmt/format.h>

#include "foundation/host_text.h"
#include "platform/utf.h"
#include "snmp/asn.h"
#include "snmp/message.h"
#include "snmp/oid.h"

namespace kv::control {

namespace {

constexpr std::uint32_t largestSubId = 4294967294;  // see ConvertToOidOrIpFromString

/// The first number of an OID that is larger than the engine asks for; empty when none is. It would wrap at 32 bits.
std::string NumberTooLarge(const std::string& oid) {
    for (std::size_t at = 0; at < oid.size();) {
        std::string number = oid.substr(at, oid.find('.', at) - at);
        std::uint64_t value = 0;
        const auto parsed = std::from_chars(number.data(), number.data() + number.size(), value);
        if (parsed.ec == std::errc::result_out_of_range || value > largestSubId) return number;
        at += number.size() + 1;
    }
    return "";
}

}  // namespace

std::string DeviceNameFault(std::string_view name, std::string_view ofPort) {
    if (name.find_first_of(":/ \t") != std::string_view::npos)
        return fmt::format("'{}' is not an IPv4 address or a name; a port {}, and IPv6 is not asked", name, ofPort);
    if (name == "255.255.255.255") return "255.255.255.255 is every computer of a network; name one device";
    if (name == "0.0.0.0") return "0.0.0.0 is every address of a computer; name one device";
    const std::string fault = HostFault(platform::WideFromUtf8(name));
    return fault.empty() ? "" : fmt::format("'{}'{}", name.substr(0, longestHost), fault);
}

std::string OidFault(const std::string& oid) {
    constexpr std::uint32_t mostBehindSmall = 39;  // the second number is encoded together with a first one of 0 or 1
    if (const std::string number = NumberTooLarge(oid); !number.empty())
        return fmt::format("has the number {}, and the largest that is asked for is {}", number, largestSubId);
    snmp::SubIds subIds;
    const std::int32_t count = snmp::ConvertToOidOrIpFromString(subIds, oid, false);
    if (count < 1) return std::string(notNumbers);
    if (count > snmp::asnMaxBuildSubIds) return fmt::format("has {} numbers: it is not sent", count);
    if (count > snmp::maxReceivedSubIds)
        return fmt::format("has {} numbers: an answer with more than {} is not read", count, snmp::maxReceivedSubIds);
    if (subIds[0] > 2 || (subIds[0] < 2 && count > 1 && subIds[1] > mostBehindSmall))
        return "cannot be: an OID begins with 0, 1 or 2, and behind 0 and 1 comes a number up to 39";
    return "";
}

std::string ErrorStatusMeaning(std::string_view line) {
    const bool isNoSuchName = line.find("error status 2 ") != std::string_view::npos;
    return isNoSuchName ? ": noSuchName, it lacks that OID, and in SNMPv1 gives no other then" : "";
}

}  // namespace kv::control

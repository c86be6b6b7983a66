#include "facts/network/network_addresses.h"

#include <algorithm>
#include <array>
#include <limits>
#include <linux/rtnetlink.h>
#include <sys/socket.h>

#include "facts/network/netlink.h"
#include "facts/system_text.h"

namespace kv::facts {

namespace {

constexpr std::uint32_t forever = std::numeric_limits<std::uint32_t>::max();

std::optional<InterfaceAddress> AddressIn(std::string_view content) {
    const auto message = RecordAt<ifaddrmsg>(content);
    if (message.ifa_family != AF_INET && message.ifa_family != AF_INET6) return std::nullopt;
    const std::string_view lifetime = AttributeIn(Beyond(content, sizeof(ifaddrmsg)), IFA_CACHEINFO).value_or("");
    InterfaceAddress address{message.ifa_index, message.ifa_family == AF_INET, std::nullopt};
    const std::uint32_t secondsLeft = RecordAt<ifa_cacheinfo>(lifetime).ifa_valid;
    if (lifetime.size() >= sizeof(ifa_cacheinfo) && secondsLeft != forever) address.secondsLeft = secondsLeft;
    return address;
}

void AddAddresses(std::string_view messages, std::vector<InterfaceAddress>& addresses) {
    ForEachMessage(messages, RTM_NEWADDR, [&](std::string_view content) {
        if (const std::optional<InterfaceAddress> address = AddressIn(content)) addresses.push_back(*address);
    });
}

bool IsZero(std::string_view hexadecimal) { return hexadecimal.find_first_not_of('0') == hexadecimal.npos; }

constexpr std::uint64_t viaGateway = 2;   // RTF_GATEWAY
constexpr std::uint64_t refused = 0x200;  // RTF_REJECT

bool IsRefused(std::string_view flagsText) { return (HexNumberOf(flagsText).value_or(0) & refused) != 0; }

bool LeadsOut(std::string_view flagsText) {
    return (HexNumberOf(flagsText).value_or(0) & viaGateway) != 0 && !IsRefused(flagsText);
}

/// Of a line of /proc/net/route: interface, destination, gateway, flags, two others, metric, mask.
using RouteFields = std::array<std::string_view, 8>;

RouteFields TakeRouteFields(std::string_view line) {
    RouteFields fields;
    for (std::string_view& field : fields) field = TakeField(line);
    return fields;
}

bool IsDefault(const RouteFields& fields) { return !fields[7].empty() && IsZero(fields[1]) && IsZero(fields[7]); }

}  // namespace

std::vector<InterfaceAddress> ParseAddressMessages(std::string_view messages) {
    std::vector<InterfaceAddress> addresses;
    AddAddresses(messages, addresses);
    return addresses;
}

std::optional<std::vector<InterfaceAddress>> ReadInterfaceAddresses() {
    std::vector<InterfaceAddress> addresses;
    const NetlinkTaker taker{[&] { addresses.clear(); }, [&](auto messages) { AddAddresses(messages, addresses); }};
    const NetlinkAnswer answer = DumpOverNetlink(NETLINK_ROUTE, RTM_GETADDR, BytesOf(ifaddrmsg{}), taker);
    if (answer == NetlinkAnswer::none) return std::nullopt;
    return addresses;
}

std::vector<std::string> ParseDefaultRoutes(std::string_view route) {
    std::vector<std::string> interfaces;
    for (std::string_view line; TakeLine(route, line);) {
        const RouteFields fields = TakeRouteFields(line);
        if (IsDefault(fields) && LeadsOut(fields[3])) interfaces.emplace_back(fields[0]);
    }
    return interfaces;
}

std::map<std::string, std::uint32_t> ParseDefaultMetrics(std::string_view route) {
    std::map<std::string, std::uint32_t> metrics;
    for (std::string_view line; TakeLine(route, line);) {
        const RouteFields fields = TakeRouteFields(line);
        const std::optional<std::uint64_t> metric = NumberOf(fields[6]);
        if (!IsDefault(fields) || IsRefused(fields[3]) || !metric || *metric > UINT32_MAX) continue;
        const auto number = static_cast<std::uint32_t>(*metric);
        const auto [found, isFirst] = metrics.try_emplace(std::string(fields[0]), number);
        if (!isFirst) found->second = std::min(found->second, number);
    }
    return metrics;
}

std::vector<std::string> ParseDefaultRoutes6(std::string_view route) {
    std::vector<std::string> interfaces;
    for (std::string_view line; TakeLine(route, line);) {
        std::array<std::string_view, 10> fields;  // destination and length, five others, ..., flags, interface
        for (std::string_view& field : fields) field = TakeField(line);
        const bool isDefault = !fields[9].empty() && IsZero(fields[0]) && IsZero(fields[1]);
        if (isDefault && LeadsOut(fields[8])) interfaces.emplace_back(fields[9]);
    }
    return interfaces;
}

ResolverSettings ParseResolverSettings(std::string_view text) {
    ResolverSettings settings;
    for (std::string_view line; TakeLine(text, line);) {
        line = Trimmed(line);
        const std::string_view key = TakeField(line);
        if (key == "nameserver" && !TakeField(line).empty()) ++settings.servers;
        if (key != "search" && key != "domain") continue;
        settings.domains.clear();  // the last such line holds
        for (std::string_view name = TakeField(line); !name.empty(); name = TakeField(line)) {
            settings.domains.emplace_back(name);
        }
    }
    return settings;
}

}  // namespace kv::facts

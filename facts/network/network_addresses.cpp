#include "facts/network/network_addresses.h"

#include <algorithm>
#include <arpa/inet.h>
#include <array>
#include <limits>
#include <linux/rtnetlink.h>
#include <sys/socket.h>
#include <utility>

#include "facts/network/netlink.h"
#include "facts/system_text.h"

namespace kv::facts {

namespace {

constexpr std::uint32_t forever = std::numeric_limits<std::uint32_t>::max();

/// The text of an address's bytes; empty if they are none.
std::string AddressText(int family, std::string_view bytes) {
    std::array<char, INET6_ADDRSTRLEN> text{};
    if (bytes.size() != (family == AF_INET ? sizeof(in_addr) : sizeof(in6_addr))) return {};
    return inet_ntop(family, bytes.data(), text.data(), text.size()) == nullptr ? std::string() : text.data();
}

/// Of a link between two points IFA_ADDRESS is the other end.
std::string OwnAddressIn(const ifaddrmsg& message, std::string_view attributes) {
    std::optional<std::string_view> bytes = AttributeIn(attributes, IFA_LOCAL);
    if (!bytes) bytes = AttributeIn(attributes, IFA_ADDRESS);
    return AddressText(message.ifa_family, bytes.value_or(""));
}

std::optional<InterfaceAddress> AddressIn(std::string_view content) {
    const auto message = RecordAt<ifaddrmsg>(content);
    if (message.ifa_family != AF_INET && message.ifa_family != AF_INET6) return std::nullopt;
    const std::string_view lifetime = AttributeIn(Beyond(content, sizeof(ifaddrmsg)), IFA_CACHEINFO).value_or("");
    InterfaceAddress address{.interfaceIndex = message.ifa_index,
                             .isVersion4 = message.ifa_family == AF_INET,
                             .text = OwnAddressIn(message, Beyond(content, sizeof(ifaddrmsg))),
                             .prefixLength = message.ifa_prefixlen,
                             .secondsLeft = std::nullopt};
    const std::uint32_t secondsLeft = RecordAt<ifa_cacheinfo>(lifetime).ifa_valid;
    if (lifetime.size() >= sizeof(ifa_cacheinfo) && secondsLeft != forever) address.secondsLeft = secondsLeft;
    return address;
}

void AddAddresses(std::string_view messages, std::vector<InterfaceAddress>& addresses) {
    ForEachMessage(messages, RTM_NEWADDR, [&](std::string_view content) {
        if (std::optional<InterfaceAddress> address = AddressIn(content)) addresses.push_back(std::move(*address));
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

/// The address of /proc/net/route, a number in the order of the computer's bytes.
std::string Gateway4(std::string_view hexadecimal) {
    const auto number = static_cast<std::uint32_t>(HexNumberOf(hexadecimal).value_or(0));
    return AddressText(AF_INET, std::string_view(reinterpret_cast<const char*>(&number), sizeof number));
}

/// The address of /proc/net/ipv6_route, two digits for each byte.
std::string Gateway6(std::string_view hexadecimal) {
    std::string bytes;
    for (std::size_t at = 0; at + 1 < hexadecimal.size(); at += 2)
        bytes += static_cast<char>(HexNumberOf(hexadecimal.substr(at, 2)).value_or(0));
    return AddressText(AF_INET6, bytes);
}

bool IsDefault(const RouteFields& fields) { return !fields[7].empty() && IsZero(fields[1]) && IsZero(fields[7]); }

}  // namespace

std::string InterfaceAddress::subnet() const {
    constexpr unsigned bits = 32;
    if (!isVersion4 || prefixLength > bits) return std::to_string(prefixLength);
    const std::uint32_t mask = prefixLength == 0 ? 0 : UINT32_MAX << (bits - prefixLength);
    const std::uint32_t inOrder = htonl(mask);
    return AddressText(AF_INET, std::string_view(reinterpret_cast<const char*>(&inOrder), sizeof inOrder));
}

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

std::vector<DefaultRoute> ParseDefaultRoutes(std::string_view route) {
    std::vector<DefaultRoute> routes;
    for (std::string_view line; TakeLine(route, line);) {
        const RouteFields fields = TakeRouteFields(line);
        if (IsDefault(fields) && LeadsOut(fields[3]))
            routes.push_back({std::string(fields[0]), Gateway4(fields[2]), NumberOf(fields[6]).value_or(0)});
    }
    return routes;
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

std::vector<DefaultRoute> ParseDefaultRoutes6(std::string_view route) {
    std::vector<DefaultRoute> routes;
    for (std::string_view line; TakeLine(route, line);) {
        std::array<std::string_view, 10> fields;  // destination, source, gateway at 4, metric at 5, flags, interface
        for (std::string_view& field : fields) field = TakeField(line);
        const bool isDefault = !fields[9].empty() && IsZero(fields[0]) && IsZero(fields[1]);
        if (isDefault && LeadsOut(fields[8]))
            routes.push_back({std::string(fields[9]), Gateway6(fields[4]), HexNumberOf(fields[5]).value_or(0)});
    }
    return routes;
}

ResolverSettings ParseResolverSettings(std::string_view text) {
    ResolverSettings settings;
    for (std::string_view line; TakeLine(text, line);) {
        line = Trimmed(line);
        const std::string_view key = TakeField(line);
        if (key == "nameserver") {
            const std::string_view server = TakeField(line);
            if (!server.empty()) settings.servers.emplace_back(server);
        }
        if (key != "search" && key != "domain") continue;
        settings.domains.clear();  // the last such line holds
        for (std::string_view name = TakeField(line); !name.empty(); name = TakeField(line)) {
            settings.domains.emplace_back(name);
        }
    }
    return settings;
}

}  // namespace kv::facts

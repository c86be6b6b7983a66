#include "facts/network/routes.h"

#include <arpa/inet.h>
#include <array>
#include <linux/rtnetlink.h>

#include "facts/network/netlink.h"

namespace kv::facts {

namespace {

/// Of an address of either family; empty if the bytes are too few.
std::string AddressText(int family, std::string_view bytes) {
    const std::size_t length = family == AF_INET ? sizeof(in_addr) : sizeof(in6_addr);
    std::array<char, INET6_ADDRSTRLEN> text{};
    if (bytes.size() < length) return "";
    return inet_ntop(family, bytes.data(), text.data(), text.size()) != nullptr ? text.data() : "";
}

std::string MaskText(unsigned length) {
    constexpr unsigned wholeLength = 32;
    const std::uint32_t mask = length == 0 ? 0 : htonl(UINT32_MAX << (wholeLength - std::min(length, wholeLength)));
    return AddressText(AF_INET, BytesOf(mask));
}

/// The gateway among a route's or a next hop's attributes; empty if it has none.
std::string GatewayIn(std::string_view attributes) {
    if (const auto gateway = AttributeIn(attributes, RTA_GATEWAY)) return AddressText(AF_INET, *gateway);
    const std::string_view via = AttributeIn(attributes, RTA_VIA).value_or("");  // a family, and an address of it
    constexpr std::size_t familyBytes = sizeof(std::uint16_t);
    if (via.size() < familyBytes) return "";
    return RecordAt<std::uint16_t>(via) == AF_INET6 ? AddressText(AF_INET6, via.substr(familyBytes)) : "";
}

void Add(Route route, Routes& routes) {
    if (routes.list.size() >= mostRoutes) {
        ++routes.leftOut;
    } else {
        routes.list.push_back(std::move(route));
    }
}

/// Adds the route once for each of its next hops.
void AddHops(const Route& route, std::string_view hops, Routes& routes) {
    while (hops.size() >= sizeof(rtnexthop)) {
        const auto header = RecordAt<rtnexthop>(hops);
        if (header.rtnh_len < sizeof(rtnexthop) || header.rtnh_len > hops.size()) return;
        Route added = route;
        added.interfaceIndex = static_cast<std::uint32_t>(header.rtnh_ifindex);
        added.nextHop = GatewayIn(hops.substr(sizeof(rtnexthop), header.rtnh_len - sizeof(rtnexthop)));
        Add(std::move(added), routes);
        hops = Beyond(hops, header.rtnh_len);
    }
}

void AddRoute(std::string_view content, Routes& routes) {
    const auto message = RecordAt<rtmsg>(content);
    const std::string_view attributes = Beyond(content, sizeof(rtmsg));
    const std::uint32_t table = NumberIn(attributes, RTA_TABLE).value_or(message.rtm_table);
    if (message.rtm_family != AF_INET || table != RT_TABLE_MAIN) return;
    Route route;
    const auto destination = AttributeIn(attributes, RTA_DST);
    route.destination = destination ? AddressText(AF_INET, *destination) : "0.0.0.0";
    route.mask = MaskText(message.rtm_dst_len);
    route.nextHop = GatewayIn(attributes);
    route.interfaceIndex = NumberIn(attributes, RTA_OIF).value_or(0);
    route.metric = NumberIn(attributes, RTA_PRIORITY).value_or(0);
    route.type = message.rtm_type;
    route.protocol = message.rtm_protocol;
    const auto hops = AttributeIn(attributes, RTA_MULTIPATH);
    if (hops) return AddHops(route, *hops, routes);
    Add(std::move(route), routes);
}

}  // namespace

void AddRoutes(std::string_view messages, Routes& routes) {
    ForEachMessage(messages, RTM_NEWROUTE, [&](std::string_view content) { AddRoute(content, routes); });
}

std::optional<Routes> ReadRoutes() {
    rtmsg request{};
    request.rtm_family = AF_INET;
    Routes routes;
    const NetlinkTaker taker{[&] { routes = {}; }, [&](auto messages) { AddRoutes(messages, routes); }};
    const NetlinkAnswer answer = DumpOverNetlink(NETLINK_ROUTE, RTM_GETROUTE, BytesOf(request), taker);
    if (answer == NetlinkAnswer::none) return std::nullopt;
    routes.isChanging = answer == NetlinkAnswer::changing;
    return routes;
}

}  // namespace kv::facts

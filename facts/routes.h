// The IPv4 routes of the main table, as ip(8) shows them, over rtnetlink(7).
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace kv::facts {

struct Route {
    std::string destination;           // dotted
    std::string mask;                  // dotted
    std::string nextHop;               // dotted, or an address of IPv6; empty for a direct route
    std::uint32_t interfaceIndex = 0;  // 0 for a route that refuses packets
    std::uint32_t metric = 0;
    std::uint8_t type = 0;      // RTN_UNICAST, RTN_BLACKHOLE, ...
    std::uint8_t protocol = 0;  // who set it: RTPROT_KERNEL, RTPROT_DHCP, ...
};

/// The routes in an answer of the kernel to RTM_GETROUTE; one for each next hop of a route that has several.
std::vector<Route> ParseRoutes(std::string_view messages);

/// Those of this computer; absent if the kernel does not give them.
std::optional<std::vector<Route>> ReadRoutes();

}  // namespace kv::facts

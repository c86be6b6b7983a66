// The IPv4 routes of the main table, as ip(8) shows them, over rtnetlink(7).
#pragma once

#include <cstddef>
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

/// The most that are kept, some 10 MB: a router may have the Internet's million.
constexpr std::size_t mostRoutes = 100'000;

struct Routes {
    std::vector<Route> list;
    std::size_t leftOut = 0;  // beyond mostRoutes
    bool isChanging = false;  // they changed while the kernel told them: some may be missing, or be there twice
};

/// Adds the routes in a part of the kernel's answer to RTM_GETROUTE; one for each next hop of a route that has several.
void AddRoutes(std::string_view messages, Routes& routes);

/// Those of this computer; absent if the kernel does not give them.
std::optional<Routes> ReadRoutes();

}  // namespace kv::facts

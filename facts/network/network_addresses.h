// IP on the interfaces: their addresses, the default routes through them, and the name servers.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace kv::facts {

/// An IP address of an interface.
struct InterfaceAddress {
    std::uint32_t interfaceIndex = 0;
    bool isVersion4 = false;
    std::string text;                          // such as "192.0.2.20" or "fe80::1"
    unsigned prefixLength = 0;                 // bits of the network's part
    std::optional<std::uint32_t> secondsLeft;  // until it is no longer valid; absent: forever

    /// The network's part as Windows shows it: "255.255.255.0", or "64" in IPv6.
    std::string subnet() const;
};

/// The addresses in the kernel's answer to RTM_GETADDR (rtnetlink(7)), up to the first malformed message.
std::vector<InterfaceAddress> ParseAddressMessages(std::string_view messages);

/// All addresses of this computer; absent if the kernel does not give them.
std::optional<std::vector<InterfaceAddress>> ReadInterfaceAddresses();

/// A default route through a gateway.
struct DefaultRoute {
    std::string interface;
    std::string gateway;  // its address
    std::uint64_t metric = 0;
};

/// Those of the text of /proc/net/route or /proc/net/ipv6_route.
std::vector<DefaultRoute> ParseDefaultRoutes(std::string_view route);
std::vector<DefaultRoute> ParseDefaultRoutes6(std::string_view route);

/// The lowest metric of the default routes through each interface that has one, from the text of /proc/net/route.
std::map<std::string, std::uint32_t> ParseDefaultMetrics(std::string_view route);

/// What resolv.conf(5) sets.
struct ResolverSettings {
    std::vector<std::string> servers;
    std::vector<std::string> domains;  // in which short names are looked up, in this order
};

ResolverSettings ParseResolverSettings(std::string_view text);

}  // namespace kv::facts

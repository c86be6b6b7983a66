// How interfaces take part in IP: their addresses, the routes out by them, and the name servers.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace kv::facts {

/// An IP address of an interface.
struct InterfaceAddress {
    std::uint32_t interfaceIndex = 0;
    bool isVersion4 = false;
    std::optional<std::uint32_t> secondsLeft;  // until it is no longer valid; absent: forever
};

/// The addresses in the kernel's answer to RTM_GETADDR (rtnetlink(7)); stops at its end, or at the first malformed
/// message.
std::vector<InterfaceAddress> ParseAddressMessages(std::string_view bytes);

/// All addresses of this computer; empty when the kernel does not tell.
std::vector<InterfaceAddress> ReadInterfaceAddresses();

/// The interface of each default route through a gateway, from /proc/net/route and /proc/net/ipv6_route.
std::vector<std::string> ParseDefaultRoutes(std::string_view route);
std::vector<std::string> ParseDefaultRoutes6(std::string_view route);

/// resolv.conf(5).
struct ResolverSettings {
    std::size_t servers = 0;
    std::vector<std::string> domains;  // names are looked for in these, in this order
};

ResolverSettings ParseResolverSettings(std::string_view text);

}  // namespace kv::facts

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

/// That an interface has an IP address; which one does not matter here.
struct InterfaceAddress {
    std::uint32_t interfaceIndex = 0;
    bool isVersion4 = false;
    std::optional<std::uint32_t> secondsLeft;  // until it is no longer valid; absent: forever
};

/// The addresses in the kernel's answer to RTM_GETADDR (rtnetlink(7)), up to the first malformed message.
std::vector<InterfaceAddress> ParseAddressMessages(std::string_view messages);

/// All addresses of this computer; absent if the kernel does not give them.
std::optional<std::vector<InterfaceAddress>> ReadInterfaceAddresses();

/// The interface of each default route through a gateway, from the text of /proc/net/route or /proc/net/ipv6_route.
std::vector<std::string> ParseDefaultRoutes(std::string_view route);
std::vector<std::string> ParseDefaultRoutes6(std::string_view route);

/// The lowest metric of the default routes through each interface that has one, from the text of /proc/net/route.
std::map<std::string, std::uint32_t> ParseDefaultMetrics(std::string_view route);

/// What resolv.conf(5) sets.
struct ResolverSettings {
    std::size_t servers = 0;
    std::vector<std::string> domains;  // in which short names are looked up, in this order
};

ResolverSettings ParseResolverSettings(std::string_view text);

}  // namespace kv::facts

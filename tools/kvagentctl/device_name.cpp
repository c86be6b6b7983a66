#include "tools/kvagentctl/device_name.h"

#include <fmt/format.h>

namespace kv::control {

std::string DeviceNameFault(std::string_view name, std::string_view ofPort) {
    constexpr std::size_t longest = 255;  // characters
    if (name.size() > longest) return "is longer than 255 characters";
    if (name.find_first_of(":/ \t") != std::string_view::npos)
        return fmt::format("'{}' is not an IPv4 address or a name; a port {}, and IPv6 is not asked", name, ofPort);
    if (name == "255.255.255.255") return "255.255.255.255 is every computer of a network; name one device";
    return "";
}

}  // namespace kv::control

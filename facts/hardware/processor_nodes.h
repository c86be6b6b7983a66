// Which processors belong to which memory node (NUMA), from /sys/devices/system/node.
#pragma once

#include <cstdint>
#include <map>
#include <string_view>
#include <vector>

namespace kv::facts {

/// The numbers in a list such as "0-3,8,10-11", in its order; empty when it has another form.
std::vector<std::uint32_t> ParseNumberList(std::string_view list);

/// The node of each processor that is online. Empty on a computer without nodes.
std::map<std::uint32_t, std::uint32_t> ReadNodesOfProcessors();

}  // namespace kv::facts

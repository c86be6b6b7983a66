#include "facts/hardware/processor_nodes.h"

#include <algorithm>
#include <string>

#include "facts/system_text.h"

namespace kv::facts {

namespace {

/// More than any kernel is built for, so that no text makes a longer list.
constexpr std::uint64_t mostNumbers = 65536;

/// Adds the numbers of "3" or "0-3"; false when the text is neither.
bool AddRange(std::string_view range, std::vector<std::uint32_t>& numbers) {
    const std::size_t dash = range.find('-');
    const std::optional<std::uint64_t> first = NumberOf(range.substr(0, dash));
    const std::optional<std::uint64_t> last = dash == std::string_view::npos ? first : NumberOf(range.substr(dash + 1));
    if (!first || !last || *last >= mostNumbers || *first > *last) return false;
    for (std::uint64_t number = *first; number <= *last; ++number)
        numbers.push_back(static_cast<std::uint32_t>(number));
    return true;
}

}  // namespace

std::vector<std::uint32_t> ParseNumberList(std::string_view list) {
    std::vector<std::uint32_t> numbers;
    for (list = Trimmed(list); !list.empty();) {
        const std::size_t comma = std::min(list.find(','), list.size());
        if (!AddRange(list.substr(0, comma), numbers) || numbers.size() > mostNumbers) return {};
        list.remove_prefix(std::min(comma + 1, list.size()));
    }
    return numbers;
}

std::map<std::uint32_t, std::uint32_t> ReadNodesOfProcessors() {
    const std::string folder = "/sys/devices/system/node/";
    std::map<std::uint32_t, std::uint32_t> nodes;
    for (const std::uint32_t node : ParseNumberList(ReadSystemLine(folder + "online").value_or(""))) {
        const std::string list = folder + "node" + std::to_string(node) + "/cpulist";
        for (const std::uint32_t processor : ParseNumberList(ReadSystemLine(list).value_or("")))
            nodes[processor] = node;
    }
    return nodes;
}

}  // namespace kv::facts

#include "facts/network_addresses.h"

#include <array>
#include <limits>
#include <linux/rtnetlink.h>
#include <sys/socket.h>

#include "facts/netlink.h"
#include "facts/system_text.h"

namespace kv::facts {

namespace {

constexpr std::uint32_t forever = std::numeric_limits<std::uint32_t>::max();

std::optional<InterfaceAddress> AddressIn(std::string_view content) {
    const auto message = RecordAt<ifaddrmsg>(content);
    if (message.ifa_family != AF_INET && message.ifa_family != AF_INET6) return std::nullopt;
    const std::string_view lifetime = AttributeIn(Beyond(content, sizeof(ifaddrmsg)), IFA_CACHEINFO).value_or("");
    InterfaceAddress address{message.ifa_index, message.ifa_family == AF_INET, std::nullopt};
    const std::uint32_t secondsLeft = RecordAt<ifa_cacheinfo>(lifetime).ifa_valid;
    if (lifetime.size() >= sizeof(ifa_cacheinfo) && secondsLeft != forever) address.secondsLeft = secondsLeft;
    return address;
}

bool IsZero(std::string_view hexadecimal) { return hexadecimal.find_first_not_of('0') == hexadecimal.npos; }

constexpr std::uint64_t viaGateway = 2;   // RTF_GATEWAY
constexpr std::uint64_t refused = 0x200;  // RTF_REJECT

bool LeadsOut(std::string_view flagsText) {
    const std::uint64_t flags = HexNumberOf(flagsText).value_or(0);
    return (flags & viaGateway) != 0 && (flags & refused) == 0;
}

}  // namespace

std::vector<InterfaceAddress> ParseAddressMessages(std::string_view messages) {
    std::vector<InterfaceAddress> addresses;
    ForEachMessage(messages, RTM_NEWADDR, [&](std::string_view content) {
        if (const std::optional<InterfaceAddress> address = AddressIn(content)) addresses.push_back(*address);
    });
    return addresses;
}

std::optional<std::vector<InterfaceAddress>> ReadInterfaceAddresses() {
    const std::optional<std::string> messages = DumpOverNetlink(NETLINK_ROUTE, RTM_GETADDR, BytesOf(ifaddrmsg{}));
    if (!messages) return std::nullopt;
    return ParseAddressMessages(*messages);
}

std::vector<std::string> ParseDefaultRoutes(std::string_view route) {
    std::vector<std::string> interfaces;
    for (std::string_view line; TakeLine(route, line);) {
        std::array<std::string_view, 8> fields;  // interface, destination, gateway, flags, three others, mask
        for (std::string_view& field : fields) field = TakeField(line);
        const bool isDefault = !fields[7].empty() && IsZero(fields[1]) && IsZero(fields[7]);
        if (isDefault && LeadsOut(fields[3])) interfaces.emplace_back(fields[0]);
    }
    return interfaces;
}

std::vector<std::string> ParseDefaultRoutes6(std::string_view route) {
    std::vector<std::string> interfaces;
    for (std::string_view line; TakeLine(route, line);) {
        std::array<std::string_view, 10> fields;  // destination and length, five others, ..., flags, interface
        for (std::string_view& field : fields) field = TakeField(line);
        const bool isDefault = !fields[9].empty() && IsZero(fields[0]) && IsZero(fields[1]);
        if (isDefault && LeadsOut(fields[8])) interfaces.emplace_back(fields[9]);
    }
    return interfaces;
}

ResolverSettings ParseResolverSettings(std::string_view text) {
    ResolverSettings settings;
    for (std::string_view line; TakeLine(text, line);) {
        line = Trimmed(line);
        const std::string_view key = TakeField(line);
        if (key == "nameserver" && !TakeField(line).empty()) ++settings.servers;
        if (key != "search" && key != "domain") continue;
        settings.domains.clear();  // the last such line holds
        for (std::string_view name = TakeField(line); !name.empty(); name = TakeField(line)) {
            settings.domains.emplace_back(name);
        }
    }
    return settings;
}

}  // namespace kv::facts

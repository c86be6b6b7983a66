#include "facts/network_addresses.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <limits>
#include <linux/rtnetlink.h>
#include <sys/socket.h>

#include "facts/system_text.h"
#include "platform/linux/descriptor.h"

namespace kv::facts {

namespace {

constexpr std::uint32_t forever = std::numeric_limits<std::uint32_t>::max();

/// The record at the start of the bytes; all zeros when they are too short.
template <class Record>
Record RecordAt(std::string_view bytes) {
    Record record{};
    if (bytes.size() >= sizeof(Record)) std::memcpy(&record, bytes.data(), sizeof(Record));
    return record;
}

/// Messages and attributes begin at multiples of four.
std::string_view Beyond(std::string_view bytes, std::size_t length) {
    constexpr std::size_t step = 4;
    return bytes.substr(std::min((length + step - 1) / step * step, bytes.size()));
}

/// The content of an attribute of a message; empty when there is no such attribute.
std::string_view AttributeIn(std::string_view attributes, unsigned short type) {
    while (attributes.size() >= sizeof(rtattr)) {
        const auto header = RecordAt<rtattr>(attributes);
        if (header.rta_len < sizeof(rtattr) || header.rta_len > attributes.size()) break;
        if (header.rta_type == type) return attributes.substr(sizeof(rtattr), header.rta_len - sizeof(rtattr));
        attributes = Beyond(attributes, header.rta_len);
    }
    return {};
}

std::optional<InterfaceAddress> AddressIn(std::string_view content) {
    const auto message = RecordAt<ifaddrmsg>(content);
    if (message.ifa_family != AF_INET && message.ifa_family != AF_INET6) return std::nullopt;
    const std::string_view lifetime = AttributeIn(Beyond(content, sizeof(ifaddrmsg)), IFA_CACHEINFO);
    InterfaceAddress address{message.ifa_index, message.ifa_family == AF_INET, std::nullopt};
    const std::uint32_t secondsLeft = RecordAt<ifa_cacheinfo>(lifetime).ifa_valid;
    if (lifetime.size() >= sizeof(ifa_cacheinfo) && secondsLeft != forever) address.secondsLeft = secondsLeft;
    return address;
}

bool RequestAddresses(int socket) {
    struct {
        nlmsghdr header;
        ifaddrmsg message;
    } request{};
    request.header.nlmsg_len = sizeof(request);
    request.header.nlmsg_type = RTM_GETADDR;
    request.header.nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
    constexpr timeval bound{1, 0};
    return setsockopt(socket, SOL_SOCKET, SO_RCVTIMEO, &bound, sizeof(bound)) == 0 &&
           send(socket, &request, sizeof(request), 0) == ssize_t{sizeof(request)};
}

/// Whether a datagram holds the end of the answer, or an error.
bool IsLast(std::string_view datagram) {
    while (datagram.size() >= sizeof(nlmsghdr)) {
        const auto header = RecordAt<nlmsghdr>(datagram);
        if (header.nlmsg_type == NLMSG_DONE || header.nlmsg_type == NLMSG_ERROR) return true;
        if (header.nlmsg_len < sizeof(nlmsghdr)) return true;
        datagram = Beyond(datagram, header.nlmsg_len);
    }
    return false;
}

std::string ReceiveAddressMessages() {
    std::string answer;
    const platform::Descriptor netlink(socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_ROUTE));
    if (!netlink || !RequestAddresses(netlink.get())) return answer;
    constexpr std::size_t largestDatagram = 64 * 1024;
    std::vector<char> datagram(largestDatagram);
    for (;;) {
        const ssize_t got = recv(netlink.get(), datagram.data(), datagram.size(), 0);
        if (got < 0 && errno == EINTR) continue;
        if (got <= 0) return answer;
        const std::string_view part(datagram.data(), static_cast<std::size_t>(got));
        answer += part;
        if (IsLast(part)) return answer;
    }
}

bool IsZero(std::string_view hexadecimal) { return hexadecimal.find_first_not_of('0') == hexadecimal.npos; }

constexpr std::uint64_t viaGateway = 2;   // RTF_GATEWAY
constexpr std::uint64_t refused = 0x200;  // RTF_REJECT

bool LeadsOut(std::string_view flagsText) {
    const std::uint64_t flags = HexNumberOf(flagsText).value_or(0);
    return (flags & viaGateway) != 0 && (flags & refused) == 0;
}

}  // namespace

std::vector<InterfaceAddress> ParseAddressMessages(std::string_view bytes) {
    std::vector<InterfaceAddress> addresses;
    while (bytes.size() >= sizeof(nlmsghdr)) {
        const auto header = RecordAt<nlmsghdr>(bytes);
        if (header.nlmsg_len < sizeof(nlmsghdr) || header.nlmsg_len > bytes.size()) break;
        const std::string_view content = bytes.substr(sizeof(nlmsghdr), header.nlmsg_len - sizeof(nlmsghdr));
        if (header.nlmsg_type == RTM_NEWADDR) {
            if (const std::optional<InterfaceAddress> address = AddressIn(content)) addresses.push_back(*address);
        }
        bytes = Beyond(bytes, header.nlmsg_len);
    }
    return addresses;
}

std::vector<InterfaceAddress> ReadInterfaceAddresses() { return ParseAddressMessages(ReceiveAddressMessages()); }

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

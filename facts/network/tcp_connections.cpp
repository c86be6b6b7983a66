#include "facts/network/tcp_connections.h"

#include <algorithm>
#include <linux/inet_diag.h>
#include <linux/netlink.h>
#include <linux/sock_diag.h>
#include <map>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <string>
#include <sys/socket.h>

#include "facts/network/netlink.h"
#include "facts/system_text.h"

namespace kv::facts {

namespace {

constexpr std::string_view tcpPrefix = "Tcp:";

bool TakeTcpLine(std::string_view& text, std::string_view& line) {
    while (TakeLine(text, line)) {
        if (!line.starts_with(tcpPrefix)) continue;
        line.remove_prefix(tcpPrefix.size());
        return true;
    }
    return false;
}

bool IsConnectedToVersion4(const inet_diag_msg& socket) {
    in6_addr other{};
    std::memcpy(&other, socket.id.idiag_dst, sizeof(other));
    return socket.idiag_family == AF_INET || IN6_IS_ADDR_V4MAPPED(&other);
}

/// False if the kernel does not list them.
bool CountConnections(std::uint8_t family, EstablishedConnections& connections) {
    inet_diag_req_v2 request{};
    request.sdiag_family = family;
    request.sdiag_protocol = IPPROTO_TCP;
    request.idiag_states = 1U << TCP_ESTABLISHED | 1U << TCP_CLOSE_WAIT;
    EstablishedConnections counted;
    const NetlinkTaker taker{[&] { counted = {}; }, [&](auto messages) { CountConnections(messages, counted); }};
    const NetlinkAnswer answer = DumpOverNetlink(NETLINK_SOCK_DIAG, SOCK_DIAG_BY_FAMILY, BytesOf(request), taker);
    connections.version4 += counted.version4;
    connections.version6 += counted.version6;
    return answer != NetlinkAnswer::none;
}

}  // namespace

std::optional<TcpCounts> ParseTcpCounts(std::string_view snmp) {
    std::string_view names;  // a line of names, and one of numbers
    std::string_view numbers;
    if (!TakeTcpLine(snmp, names) || !TakeTcpLine(snmp, numbers)) return std::nullopt;
    std::map<std::string_view, std::optional<std::uint64_t>> found;
    for (std::string_view name = TakeField(names); !name.empty(); name = TakeField(names)) {
        found[name] = NumberOf(TakeField(numbers));
    }
    TcpCounts counts;
    const std::pair<std::string_view, std::uint64_t*> fields[] = {
        {"ActiveOpens", &counts.activeOpens}, {"PassiveOpens", &counts.passiveOpens},
        {"AttemptFails", &counts.failures},   {"EstabResets", &counts.resets},
        {"InSegs", &counts.received},         {"OutSegs", &counts.sent},
        {"RetransSegs", &counts.sentAgain},
    };
    for (const auto& [name, field] : fields) {
        if (!found[name]) return std::nullopt;
        *field = *found[name];
    }
    return counts;
}

void CountConnections(std::string_view messages, EstablishedConnections& connections) {
    ForEachMessage(messages, SOCK_DIAG_BY_FAMILY, [&](std::string_view content) {
        ++(IsConnectedToVersion4(RecordAt<inet_diag_msg>(content)) ? connections.version4 : connections.version6);
    });
}

std::optional<EstablishedConnections> ReadEstablishedConnections() {
    EstablishedConnections connections;
    if (!CountConnections(AF_INET, connections) || !CountConnections(AF_INET6, connections)) return std::nullopt;
    return connections;
}

}  // namespace kv::facts

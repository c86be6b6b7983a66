// TCP: what the kernel counts, and how many connections there are.
#pragma once

#include <cstdint>
#include <optional>
#include <string_view>

namespace kv::facts {

/// Counts of all of the computer's connections, IPv4 and IPv6 together, since the system's start: the lines "Tcp:" of
/// /proc/net/snmp.
struct TcpCounts {
    std::uint64_t activeOpens = 0;   // connections that were opened here
    std::uint64_t passiveOpens = 0;  // connections that were accepted
    std::uint64_t failures = 0;      // attempts, either way, that came to nothing
    std::uint64_t resets = 0;        // established connections that were reset
    std::uint64_t received = 0;      // segments
    std::uint64_t sent = 0;          // segments, without those that were sent again
    std::uint64_t sentAgain = 0;     // segments
};

/// Absent when one of them is missing.
std::optional<TcpCounts> ParseTcpCounts(std::string_view snmp);

/// Connections that are established, those that the other side has closed included. A socket for both families that
/// is connected to an IPv4 address has an IPv4 connection.
struct EstablishedConnections {
    std::uint32_t version4 = 0;
    std::uint32_t version6 = 0;
};

/// Adds the sockets in a part of the kernel's answer (sock_diag(7)).
void CountConnections(std::string_view messages, EstablishedConnections& connections);

/// Counts those of this computer; absent if the kernel does not list them. A kernel without IPv6 has none of that.
std::optional<EstablishedConnections> ReadEstablishedConnections();

}  // namespace kv::facts

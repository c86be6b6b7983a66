// One message to a device and one back, on a UDP socket that lives for that exchange alone. Nothing is sent twice, and
// whatever reaches the socket first is the answer, whoever sent it.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "platform/sockets.h"

namespace kv::snmp {

/// Room for a device's name or address with its terminator; the longest name of the domain name system fits.
inline constexpr std::size_t remoteHostRoom = 256;

/// Room for a dotted address with its terminator.
inline constexpr std::size_t localAddressRoom = 20;

struct TransportDomainAddress {
    std::uint16_t localPort = 0;  // told in log lines; a socket is always bound to a port of the system's choice
    std::array<char, localAddressRoom> localAddress{};  // empty: any
    std::uint16_t remotePort = 0;
    std::array<char, remoteHostRoom> remoteHost;  // address or name; after an answer, its sender's address
    platform::SocketHandle socket = 0;            // a copy that the wait uses
    platform::SocketAddress* peer = nullptr;      // where to send, then who has answered
};

struct TransportDomainInfo {
    platform::SocketHandle socket = 0;
    TransportDomainAddress* address = nullptr;  // released with this record
};

/// What all exchanges of the process share.
struct TransportState {
    std::array<char, localAddressRoom> localBindAddress{};  // where sockets are bound; nothing sets it: at any address
    std::array<char, localAddressRoom> localHostAddress{};  // as of the start; the manager has no use for it
    TransportDomainInfo* ownSession = nullptr;  // the engine's own, from its start on; nothing goes through it
    platform::SocketHandle maxSocket = 0;       // the highest that was recorded
};
extern TransportState transportState;

/// Port of the engine's own session.
inline constexpr std::uint16_t ownPort = 8001;

/// Brings up the socket library for the life of the process.
void InitTransportDomain();

/// Null when memory ran out, or when the host has remoteHostRoom characters or more; each with a log line.
[[nodiscard]] TransportDomainInfo* CreateTransportDomainInfo(std::uint16_t localPort, std::uint16_t remotePort,
                                                             std::string_view host);

/// Frees a record of CreateTransportDomainInfo; its session is closed by CloseSnmpSession before. Null is allowed.
void FreeTransportDomainInfo(TransportDomainInfo* info);

struct FreeTransportDomainInfoDeleter {
    void operator()(TransportDomainInfo* info) const { FreeTransportDomainInfo(info); }
};
using TransportDomainInfoPtr = std::unique_ptr<TransportDomainInfo, FreeTransportDomainInfoDeleter>;

/// Opens the socket and gives its value; 0 when it cannot be opened or bound. Callers read the low byte as a status;
/// the platform gives no socket a value that could be taken for one.
[[nodiscard]] platform::SocketHandle OpenSnmpSession(TransportDomainInfo* info);
void CloseSnmpSession(TransportDomainInfo* info);

/// 1 sent, 0 not: the host cannot be resolved, or three attempts failed.
[[nodiscard]] int SendSnmpTrapMessage(TransportDomainInfo* info, const std::uint8_t* bytes, std::size_t length);

/// Waits for an answer, for microseconds at most; 0 only looks. 1 it is there, 0 not. A wait that the system refuses is
/// tried again at once while the time lasts, and 1000 times at most.
[[nodiscard]] int WaitForTdInfoResp(TransportDomainInfo* info, std::int64_t microseconds);

/// Receives into a buffer of messageBufferSize bytes; 1, or 0 with length 0.
[[nodiscard]] int ReadSnmpMessage(TransportDomainInfo* info, std::uint8_t* buffer, std::int32_t* length);

/// Makes the mutex of the table of locks, unless the agent has, and lets all sends and receives of the process go one
/// after the other from now on. Before, nothing holds them up: each exchange has a socket of its own.
void InitMutex();

/// Sockets to wait for.
struct SockFds {
    std::size_t count;
    std::array<platform::SocketHandle, 64> sockets;
};

/// Makes a set of the sockets of some address records. Those beyond the room of a set are left out.
void SetSockFds(SockFds* set, const TransportDomainAddress* const* addresses, std::int32_t count);

/// Raises max to the highest socket of some address records.
void UpdateMaxSockFd(const TransportDomainAddress* const* addresses, std::int32_t count, platform::SocketHandle* max);

/// Records the socket of the engine's own session in its address record, and as the highest if it is.
void UpdateAgentTransportDomainInfo();

/// This computer's address, dotted: the first of its own name, or 127.0.0.1 when that cannot be found. Unchanged, with
/// a line at level 1, when the socket library cannot be brought up. Blocks for as long as the system looks the name up.
void GetLocalHostAddress(std::array<char, localAddressRoom>& text);

/// The dotted address of a host, or the host as it stands when it cannot be found.
std::string AddressOrHost(std::string_view host);

}  // namespace kv::snmp

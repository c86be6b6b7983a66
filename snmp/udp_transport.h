// One message to a device and one back, on a UDP socket that lives for that exchange alone. No message that was sent is
// sent again, and whatever reaches the socket first is the answer, whoever sent it, unless only the device's own
// address may answer. A record belongs to one thread; exchanges of several threads may run at the same time.
#pragma once

#include <array>
#include <atomic>
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
    std::uint16_t localPort = 0;  // for log lines only: the system chooses the port of every socket
    std::array<char, localAddressRoom> localAddress{};  // where the socket is bound; empty: at any address
    std::uint16_t remotePort = 0;
    std::array<char, remoteHostRoom> remoteHost;  // address or name; after an answer, its sender's address
    platform::SocketHandle socket = 0;            // a copy for the wait
    platform::SocketAddress* peer = nullptr;      // where to send to, then who has answered
};

struct TransportDomainInfo {
    platform::SocketHandle socket = 0;
    TransportDomainAddress* address = nullptr;  // freed with this record
};

/// What all exchanges of the process share.
struct TransportState {
    std::array<char, localAddressRoom> localBindAddress{};  // where sockets are bound; nothing sets it, which means any
    std::array<char, localAddressRoom> localHostAddress{};  // as it was at the start; the manager does not use it
    TransportDomainInfo* ownSession = nullptr;              // the engine's own, from its start on; nothing uses it
    platform::SocketHandle maxSocket = 0;                   // the highest one recorded
    std::atomic<bool> checksSource{false};                  // only the device's own address may answer
    std::atomic<bool> sourceCheckIsMisspelt{false};         // which the log has told
};
extern TransportState transportState;

/// Port of the engine's own session.
inline constexpr std::uint16_t ownPort = 8001;

/// Brings up the socket library for the life of the process; an engine line says when that fails.
void InitTransportDomain();

/// The record of one exchange; the caller's, released with FreeTransportDomainInfo. Null, each with a log line, when
/// memory ran out or the host has remoteHostRoom characters or more.
[[nodiscard]] TransportDomainInfo* CreateTransportDomainInfo(std::uint16_t localPort, std::uint16_t remotePort,
                                                             std::string_view host);

/// Frees a record of CreateTransportDomainInfo, whose session CloseSnmpSession has closed. Null is allowed.
void FreeTransportDomainInfo(TransportDomainInfo* info);

struct FreeTransportDomainInfoDeleter {
    void operator()(TransportDomainInfo* info) const { FreeTransportDomainInfo(info); }
};
using TransportDomainInfoPtr = std::unique_ptr<TransportDomainInfo, FreeTransportDomainInfoDeleter>;

/// Opens the socket and gives its value; 0 with a log line when it cannot be opened or bound. Callers read the low byte
/// as a status; the platform gives no socket a value that could be taken for one.
[[nodiscard]] platform::SocketHandle OpenSnmpSession(TransportDomainInfo* info);
void CloseSnmpSession(TransportDomainInfo* info);

/// Sends one message: 1, or 0 with a log line when the host has no address or three attempts failed. Blocks while the
/// system looks up the host's name.
[[nodiscard]] int SendSnmpTrapMessage(TransportDomainInfo* info, const std::uint8_t* bytes, std::size_t length);

/// Waits for an answer for at most that many microseconds; 0 only looks. 1 when it is there, else 0. A wait that the
/// system refuses is tried again at once while the time lasts, at most 1000 times. If only the device may answer, what
/// comes from another address is skipped, with a log line, and does not make the wait longer; an answer that cannot be
/// received ends it.
[[nodiscard]] int WaitForTdInfoResp(TransportDomainInfo* info, std::int64_t microseconds);

/// Receives one message into a buffer of messageBufferSize bytes: 1, or 0 with length 0 and a log line. After 1 the
/// record's remote host and port are the sender's.
[[nodiscard]] int ReadSnmpMessage(TransportDomainInfo* info, std::uint8_t* buffer, std::int32_t* length);

/// Takes over whether only the device's own address may answer, whatever its port: the setting SNMPCheckSource. Absent
/// or "no" in any letter case, anyone may. A value that is neither "yes" nor "no" counts as "yes", with a log line when
/// it begins to be so. While the setting cannot be read, what held before holds on.
void UpdateSourceCheck();

/// Makes the mutex of the table of locks, unless the agent has made it, and from now on lets all sends and receives of
/// the process go one after the other. Before, nothing holds them up: each exchange has its own socket.
void InitMutex();

/// Sockets to wait for.
struct SockFds {
    std::size_t count;
    std::array<platform::SocketHandle, 64> sockets;
};

/// Makes a set of the sockets of some address records. Those beyond the set's room are left out.
void SetSockFds(SockFds* set, const TransportDomainAddress* const* addresses, std::int32_t count);

/// Raises max to the highest socket of some address records.
void UpdateMaxSockFd(const TransportDomainAddress* const* addresses, std::int32_t count, platform::SocketHandle* max);

/// Records the socket of the engine's own session in its address record, and as the highest one if it is that.
void UpdateAgentTransportDomainInfo();

/// This computer's address, dotted: the first one of its own name, or 127.0.0.1 when that cannot be found. Unchanged,
/// with a line at level 1, when the socket library cannot be brought up. Blocks while the system looks up the name.
void GetLocalHostAddress(std::array<char, localAddressRoom>& text);

/// The dotted address of a host, or the host as it stands when it has none. Blocks while the system looks it up.
std::string AddressOrHost(std::string_view host);

}  // namespace kv::snmp

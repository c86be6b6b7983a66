#include "snmp/udp_transport.h"

#include <algorithm>
#include <atomic>
#include <mutex>
#include <new>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "foundation/registry_store.h"
#include "foundation/resource_lock.h"
#include "platform/clock.h"
#include "snmp/message.h"
#include "snmp/toolkit_log.h"
#include "snmp/value_text.h"

namespace kv::snmp {

TransportState transportState;

namespace {

using platform::Sockets;
namespace error = platform::error;

constexpr int sendAttempts = 3;

constexpr std::string_view fallbackAddress = "127.0.0.1";

/// Datagrams that one exchange looks at, at most. Whoever sends more can keep the device's answer away anyway.
constexpr int maxLooks = 10000;

/// How often a wait that the system refuses is tried again before its time is over.
constexpr int maxSelectRepeats = 1000;

/// The records of one exchange, in one piece of memory.
struct Exchange {
    TransportDomainInfo info;
    TransportDomainAddress address;
    platform::SocketAddress peer;
    std::optional<std::vector<std::uint8_t>> answer;  // received while its sender was looked at
};

Exchange& ExchangeOf(TransportDomainInfo* info) { return *reinterpret_cast<Exchange*>(info); }  // its first member

std::atomic<bool> hasSocketMutex{false};
std::mutex socketMutex;

/// Holds the socket mutex once there is one.
std::unique_lock<std::mutex> LockSockets() {
    std::unique_lock lock(socketMutex, std::defer_lock);
    if (hasSocketMutex) lock.lock();
    return lock;
}

void StoreHost(TransportDomainAddress& address, std::string_view host) {
    address.remoteHost[host.copy(address.remoteHost.data(), remoteHostRoom - 1)] = '\0';
}

void InitUdpSocket() {
    TKLOG(3, "\t Inside InitUdpSocket() \n");
    if (Sockets().WSAStartup(1, 1) != error::success) TKLOG(2, "Can't Initialize Socket in Dos\n");
}

void CloseUdpSocket(platform::SocketHandle socket) {
    if (socket != 0) Sockets().closesocket(socket);
}

/// Where a socket is bound: at any port, and at any address unless a text names one. A text that is not an address
/// stands for one that nothing can be bound to.
platform::SocketAddress LocalEnd(const TransportDomainAddress& address) {
    platform::SocketAddress local;
    const std::string_view text = address.localAddress.data();
    if (!text.empty() && !Sockets().inet_addr(text, local.address)) local.address.fill(255);
    return local;
}

/// 0 when the socket cannot be opened or bound.
platform::SocketHandle OpenUdpSocket(TransportDomainAddress& address) {
    TKLOG(3, "\t Inside OpenUdpSocket() \n");
    address.localAddress = transportState.localBindAddress;
    // A socket that cannot be opened is 0, and that cannot be bound either.
    platform::SocketHandle socket = 0;
    const platform::Error opened = Sockets().socket(socket);
    const platform::Error bound = Sockets().bind(socket, LocalEnd(address));
    if (bound != error::success) {
        TKLOG(2, "Bind Failed,Unable to start session at : udp port %d\n", address.localPort);
        Log1("\t OpenUdpSocket :: a socket to reach %s cannot be opened or bound, error %d \n",
             address.remoteHost.data(), opened != error::success ? opened : bound);
        CloseUdpSocket(socket);
        return 0;
    }
    TKLOG(2, "\n\t@@@@@ Binding To port [%d] @@@@@\n", address.localPort);
    TKLOG(2, "\n\t @@@@@ Binding To Address [%s] @@@@@\n", address.localAddress.data());
    TKLOG(2, "Socket is opened successfuly on the port %d !!! \n", address.localPort);
    return socket;
}

bool ResolveHost(std::string_view host, std::array<std::uint8_t, 4>& address) {
    if (Sockets().inet_addr(host, address)) return true;
    platform::HostEntry entry;
    return Sockets().gethostbyname(host, entry) == error::success && Sockets().inet_addr(entry.address, address);
}

/// Looks up the remote host and makes it the peer.
bool SetUdpSocketProperties(TransportDomainAddress& address) {
    TKLOG(3, "\t Inside SetUdpSocketProperties() \n");
    platform::SocketAddress peer;
    if (!ResolveHost(address.remoteHost.data(), peer.address)) {
        Log1("\t SetUdpSocketProperties :: no IPv4 address is found for %s \n", address.remoteHost.data());
        return false;
    }
    peer.port = address.remotePort;
    const auto lock = LockSockets();
    *address.peer = peer;
    return true;
}

int SendUdpPacket(const TransportDomainAddress& address, platform::SocketHandle socket, const std::uint8_t* bytes,
                  std::size_t length) {
    TKLOG(3, "\t Inside SendUdpPacket() \n");
    auto lock = LockSockets();
    if (TkLogsAtLeast(2)) {
        TKLOG(2, "Sending PDU to : %s at %d\n", address.remoteHost.data(), address.remotePort);
        TKLOG(2, "The number of bytes to send is %d\n\n", length);
        PrintStream(bytes, static_cast<std::int32_t>(length), "0x%02x\t");
    }
    platform::Error result = error::success;
    for (int attempt = 0; attempt < sendAttempts; ++attempt) {
        std::size_t sent = 0;
        result = Sockets().sendto(socket, bytes, length, *address.peer, sent);
        if (result == error::success) return 1;
        TKLOG(1, "Error while sending the SNMP messge !!!!\n");
    }
    lock = {};
    Log1("\t SendUdpPacket :: sending to %s port %d failed, error %d \n", address.remoteHost.data(), address.remotePort,
         result);
    return 0;
}

int SendSnmpMessage(TransportDomainInfo& info, const std::uint8_t* bytes, std::size_t length) {
    return SendUdpPacket(*info.address, info.socket, bytes, length);
}

/// A wait that fails is repeated at once, within the time of the first one.
int WaitForSocketData(const TransportDomainAddress& address, std::int64_t microseconds) {
    TKLOG(3, "\t Inside WaitForSocketData() \n");
    const TransportDomainAddress* const waiting = &address;
    SockFds set;
    SetSockFds(&set, &waiting, 1);
    const std::uint64_t start = platform::Clock().GetTickCount64();
    std::int64_t left = microseconds;
    for (int repeat = 0; repeat <= maxSelectRepeats; ++repeat) {
        bool ready = false;
        if (Sockets().select(set.sockets[0], left, ready) == error::success) {
            if (ready) TKLOG(3, "Data is available from sub agent .....\n");
            return ready ? 1 : 0;
        }
        if (repeat == 0) TKLOG(1, "Error in select \n");
        left = microseconds - static_cast<std::int64_t>(platform::Clock().GetTickCount64() - start) * 1000;
        if (left <= 0) break;
    }
    return 0;
}

/// What came of a datagram that was announced.
enum class Received {
    fromDevice,    // kept as the answer; its sender is the peer from now on
    fromStranger,  // thrown away
    nothing,       // it was gone
    failure,       // with a log line
};

/// Receives what waits at the socket, while the peer is still the device.
Received ReceiveFromDevice(Exchange& exchange, std::string& stranger) {
    auto lock = LockSockets();
    std::vector<std::uint8_t> bytes(messageBufferSize);
    platform::SocketAddress sender{.address = exchange.peer.address, .port = exchange.peer.port};
    std::size_t received = 0;
    const platform::Error result =
        Sockets().recvfrom(exchange.info.socket, bytes.data(), bytes.size(), sender, received);
    if (result == error::busy) return Received::nothing;
    if (sender.address != exchange.peer.address) {
        stranger = Sockets().inet_ntoa(sender.address);
        return Received::fromStranger;
    }
    if (result != error::success) {
        lock = {};
        Log1("\t WaitForTdInfoResp :: receiving the answer of %s failed, error %d \n",
             exchange.address.remoteHost.data(), result);
        return Received::failure;
    }
    exchange.peer = sender;
    bytes.resize(received);
    exchange.answer = std::move(bytes);
    return Received::fromDevice;
}

/// Waits for an answer from the device's own address.
int WaitForDevice(Exchange& exchange, std::int64_t microseconds) {
    const std::string host = exchange.address.remoteHost.data();
    const std::uint64_t start = platform::Clock().GetTickCount64();
    std::int64_t left = microseconds;
    int skipped = 0;
    auto last = Received::nothing;
    for (int look = 0; look < maxLooks && last != Received::fromDevice && last != Received::failure; ++look) {
        if (WaitForSocketData(exchange.address, left) != 1) break;
        std::string stranger;
        last = ReceiveFromDevice(exchange, stranger);
        if (last == Received::fromStranger && ++skipped == 1)
            Log1("\t WaitForTdInfoResp :: a datagram from %s is skipped: only %s itself may answer \n", stranger, host);
        left = std::max<std::int64_t>(
            microseconds - static_cast<std::int64_t>(platform::Clock().GetTickCount64() - start) * 1000, 0);
    }
    if (skipped > 1) Log1("\t WaitForTdInfoResp :: %d datagrams from elsewhere than %s are skipped \n", skipped, host);
    return last == Received::fromDevice ? 1 : 0;
}

/// What was received while its sender was looked at.
platform::Error TakeAnswer(Exchange& exchange, std::uint8_t* buffer, std::size_t& received) {
    received = exchange.answer->size();
    std::copy(exchange.answer->begin(), exchange.answer->end(), buffer);
    exchange.answer.reset();
    return error::success;
}

int ReadUdpPacket(Exchange& exchange, std::uint8_t* buffer, std::int32_t* length) {
    TKLOG(3, "\t Inside ReadUdpPacket() \n");
    TransportDomainAddress& address = exchange.address;
    auto lock = LockSockets();
    std::size_t received = 0;
    const platform::Error result =
        exchange.answer ? TakeAnswer(exchange, buffer, received)
                        : Sockets().recvfrom(exchange.info.socket, buffer, messageBufferSize, *address.peer, received);
    if (result != error::success) {
        TKLOG(1, "Error while receiving a SNMP messge !!!!\n");
        lock = {};
        Log1("\t ReadUdpPacket :: receiving the answer of %s failed, error %d \n", address.remoteHost.data(), result);
        return 0;
    }
    *length = static_cast<std::int32_t>(received);
    const std::string sender = Sockets().inet_ntoa(address.peer->address);
    if (TkLogsAtLeast(2)) {
        TKLOG(2, "Received Packet from [%s] at [%d]\n", sender, address.peer->port);
        TKLOG(2, "\nNumber of bytes received : %d\n\n", received);
        PrintStream(buffer, *length, "%02x\t");
    }
    StoreHost(address, sender);
    address.remotePort = address.peer->port;
    return 1;
}

}  // namespace

void InitTransportDomain() { InitUdpSocket(); }

void InitMutex() {
    kv::InitMutex();
    hasSocketMutex = true;
}

TransportDomainInfo* CreateTransportDomainInfo(std::uint16_t localPort, std::uint16_t remotePort,
                                               std::string_view host) {
    TKLOG(3, "\t Inside CreateTransportDomainInfo() \n");
    if (host.size() >= remoteHostRoom) {
        Log1("\t CreateTransportDomainInfo :: the host name %s is longer than %d characters \n", host,
             remoteHostRoom - 1);
        return nullptr;
    }
    auto* exchange = new (std::nothrow) Exchange;
    if (exchange == nullptr) {
        TKLOG(1, "Unable to allocate buffer !!! \n");
        return nullptr;
    }
    exchange->info.address = &exchange->address;
    exchange->address.peer = &exchange->peer;
    exchange->address.localPort = localPort;
    exchange->address.remotePort = remotePort;
    StoreHost(exchange->address, host);
    return &exchange->info;
}

void FreeTransportDomainInfo(TransportDomainInfo* info) {
    delete reinterpret_cast<Exchange*>(info);  // or null
}

platform::SocketHandle OpenSnmpSession(TransportDomainInfo* info) {
    info->socket = OpenUdpSocket(*info->address);
    return info->socket;
}

void CloseSnmpSession(TransportDomainInfo* info) {
    CloseUdpSocket(info->socket);
    info->socket = 0;
}

int SendSnmpTrapMessage(TransportDomainInfo* info, const std::uint8_t* bytes, std::size_t length) {
    return SetUdpSocketProperties(*info->address) ? SendSnmpMessage(*info, bytes, length) : 0;
}

int WaitForTdInfoResp(TransportDomainInfo* info, std::int64_t microseconds) {
    info->address->socket = info->socket;
    return transportState.checksSource ? WaitForDevice(ExchangeOf(info), microseconds)
                                       : WaitForSocketData(*info->address, microseconds);
}

int ReadSnmpMessage(TransportDomainInfo* info, std::uint8_t* buffer, std::int32_t* length) {
    *length = 0;
    return ReadUdpPacket(ExchangeOf(info), buffer, length);
}

void UpdateSourceCheck() {
    OptionalText text;
    const platform::Error failure = LookUpText(monitoringKeyPath, u"SNMPCheckSource", text);
    const bool isAbsent = failure == error::fileNotFound || failure == error::pathNotFound;
    if (!isAbsent && failure != error::success && failure != error::invalidData) return;
    const bool isOn = !isAbsent && CompareIgnoreCase(text, u"no") != 0;
    const bool isMisspelt = isOn && CompareIgnoreCase(text, u"yes") != 0;
    if (!transportState.sourceCheckIsMisspelt.exchange(isMisspelt) && isMisspelt)
        Log1("\t UpdateSourceCheck :: SNMPCheckSource is neither yes nor no, and counts as yes \n");
    transportState.checksSource = isOn;
}

std::string AddressOrHost(std::string_view host) {
    std::array<std::uint8_t, 4> address{};
    return ResolveHost(host, address) ? Sockets().inet_ntoa(address) : std::string(host);
}

void SetSockFds(SockFds* set, const TransportDomainAddress* const* addresses, std::int32_t count) {
    set->count = std::min(static_cast<std::size_t>(std::max(count, 0)), set->sockets.size());
    for (std::size_t i = 0; i < set->count; ++i) set->sockets[i] = addresses[i]->socket;
}

void UpdateMaxSockFd(const TransportDomainAddress* const* addresses, std::int32_t count, platform::SocketHandle* max) {
    for (std::int32_t i = 0; i < count; ++i) *max = std::max(*max, addresses[i]->socket);
}

void UpdateAgentTransportDomainInfo() {
    const TransportDomainInfo* own = transportState.ownSession;
    if (!own) return;
    own->address->socket = own->socket;
    UpdateMaxSockFd(&own->address, 1, &transportState.maxSocket);
}

void GetLocalHostAddress(std::array<char, localAddressRoom>& text) {
    TKLOG(3, "\t Inside GetLocalHostAddress() \n");
    if (Sockets().WSAStartup(1, 1) != error::success) {
        TKLOG(1, "Can't Initialize Socket \n");
        return;
    }
    std::string name;
    platform::HostEntry host;
    const bool isFound =
        Sockets().gethostname(name) == error::success && Sockets().gethostbyname(name, host) == error::success;
    text.fill('\0');
    (isFound ? std::string_view(host.address) : fallbackAddress).copy(text.data(), text.size() - 1);
    Sockets().WSACleanup();
}

}  // namespace kv::snmp

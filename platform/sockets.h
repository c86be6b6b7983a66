// Host names, IPv4 addresses and datagrams. Errors are system error numbers; hostNotFound when a name or address is
// unknown, invalidHandle for a socket that is closed or 0.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>

#include "platform/errors.h"
#include "platform/seam.h"

namespace platform {

/// What a lookup found; narrow text, UTF-8.
struct HostEntry {
    std::string name;     // official name
    std::string address;  // first IPv4 address, dotted
};

/// A datagram socket, or 0. Its low byte is never 0, 99 or 255: to the SNMP engine these are results of an open.
using SocketHandle = std::uint32_t;

/// Where a datagram goes or comes from.
struct SocketAddress {
    std::array<std::uint8_t, 4> address{};  // in dotted order; 0.0.0.0 is any
    std::uint16_t port = 0;                 // 0: of the system's choice
};

struct SocketOperations {
    /// Starts the socket library where the system has one; paired with WSACleanup, or kept for the life of the process.
    /// A backend with such a library starts it in InstallBackend as well, because not everyone who opens a socket does.
    std::function<Error(int majorVersion, int minorVersion)> WSAStartup;
    std::function<void()> WSACleanup;

    /// This computer's own host name.
    std::function<Error(std::string& name)> gethostname;

    std::function<Error(std::string_view name, HostEntry& host)> gethostbyname;

    /// Looks up a dotted IPv4 address; invalidParameter when the text is not one.
    std::function<Error(std::string_view dottedAddress, HostEntry& host)> gethostbyaddr;

    /// This computer's own address on the way to other networks, dotted: that of the interface with the default route.
    /// Nothing is sent. hostNotFound where there is no such route.
    std::function<Error(std::string& dottedAddress)> GetDefaultRouteAddress;

    /// The four bytes of a dotted address, which ends at a blank; false when the text is not an address.
    std::function<bool(std::string_view dottedAddress, std::array<std::uint8_t, 4>& address)> inet_addr;
    std::function<std::string(const std::array<std::uint8_t, 4>& address)> inet_ntoa;

    /// A new datagram socket that never waits in recvfrom and that child processes do not inherit; closesocket ends it.
    std::function<Error(SocketHandle& socket)> socket;
    std::function<Error(SocketHandle socket, const SocketAddress& local)> bind;

    /// Waits until a datagram can be received, for microseconds at most; 0 or less only looks. success with ready false
    /// when the time is over. The wait goes on after an interruption.
    std::function<Error(SocketHandle socket, std::int64_t microseconds, bool& ready)> select;

    /// Sends one datagram; sent is how much of it went.
    std::function<Error(SocketHandle socket, const void* bytes, std::size_t length, const SocketAddress& peer,
                        std::size_t& sent)>
        sendto;

    /// Receives one datagram; busy when there is none, even right after select has announced one: the system may have
    /// found it damaged since. What does not fit into capacity is lost, which on some systems is an error
    /// that tells the peer all the same.
    std::function<Error(SocketHandle socket, void* buffer, std::size_t capacity, SocketAddress& peer,
                        std::size_t& received)>
        recvfrom;

    std::function<Error(SocketHandle socket)> closesocket;
};

inline const SocketOperations& Sockets() { return CurrentOperations<SocketOperations>(); }

}  // namespace platform

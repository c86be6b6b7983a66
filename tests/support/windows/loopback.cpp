#include "tests/support/loopback.h"

#include <algorithm>
#include <array>
#include <stdexcept>
#include <winsock2.h>

namespace kv::test {

namespace {

sockaddr_in Loopback(int port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = ::htons(static_cast<std::uint16_t>(port));
    address.sin_addr.s_addr = ::htonl(INADDR_LOOPBACK);
    return address;
}

SOCKET Native(Socket handle) { return static_cast<SOCKET>(handle); }

/// A new socket, of a library that has been started.
SOCKET OpenSocket() {
    WSADATA about;
    static const int started = ::WSAStartup(MAKEWORD(2, 2), &about);
    if (started != 0) throw std::runtime_error("no sockets");
    return ::socket(AF_INET, SOCK_STREAM, IPPROTO_TCP);
}

int Clipped(std::size_t size) { return static_cast<int>(std::min<std::size_t>(size, 1 << 20)); }

}  // namespace

Socket ListenOnLoopback(int& port) {
    const SOCKET listener = OpenSocket();
    sockaddr_in address = Loopback(0);
    int size = sizeof address;
    if (::bind(listener, reinterpret_cast<sockaddr*>(&address), size) != 0 || ::listen(listener, 16) != 0 ||
        ::getsockname(listener, reinterpret_cast<sockaddr*>(&address), &size) != 0) {
        throw std::runtime_error("no port to listen on");
    }
    port = ::ntohs(address.sin_port);
    return static_cast<Socket>(listener);
}

Socket AcceptConnection(Socket listener) { return static_cast<Socket>(::accept(Native(listener), nullptr, nullptr)); }

Socket ConnectToLoopback(int port) {
    const SOCKET connection = OpenSocket();
    const sockaddr_in address = Loopback(port);
    if (::connect(connection, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0) {
        return static_cast<Socket>(connection);
    }
    ::closesocket(connection);
    return noSocket;
}

std::size_t ReceiveBytes(Socket connection, char* buffer, std::size_t size) {
    return static_cast<std::size_t>(std::max(::recv(Native(connection), buffer, Clipped(size), 0), 0));
}

void SendText(Socket connection, std::string_view text) {
    while (!text.empty()) {
        const int count = ::send(Native(connection), text.data(), Clipped(text.size()), 0);
        if (count <= 0) return;
        text.remove_prefix(static_cast<std::size_t>(count));
    }
}

void Relay(Socket one, Socket other) {
    std::array<WSAPOLLFD, 2> sides{{{Native(one), POLLRDNORM, 0}, {Native(other), POLLRDNORM, 0}}};
    std::array<char, 4096> bytes;
    while (::WSAPoll(sides.data(), static_cast<ULONG>(sides.size()), -1) > 0) {
        const bool first = sides[0].revents != 0;
        const std::size_t count = ReceiveBytes(first ? one : other, bytes.data(), bytes.size());
        if (count == 0) return;
        SendText(first ? other : one, {bytes.data(), count});
    }
}

void CloseSocket(Socket socket) { ::closesocket(Native(socket)); }

}  // namespace kv::test

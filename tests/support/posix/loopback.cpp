#include "tests/support/loopback.h"

#include <arpa/inet.h>
#include <array>
#include <netinet/in.h>
#include <poll.h>
#include <stdexcept>
#include <sys/socket.h>
#include <unistd.h>

namespace kv::test {

namespace {

sockaddr_in Loopback(int port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<std::uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return address;
}

int Native(Socket handle) { return static_cast<int>(handle); }

}  // namespace

Socket ListenOnLoopback(int& port) {
    const int listener = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address = Loopback(0);
    socklen_t size = sizeof address;
    if (bind(listener, reinterpret_cast<sockaddr*>(&address), size) != 0 || listen(listener, 16) != 0 ||
        getsockname(listener, reinterpret_cast<sockaddr*>(&address), &size) != 0) {
        throw std::runtime_error("no port to listen on");
    }
    port = ntohs(address.sin_port);
    return listener;
}

Socket AcceptConnection(Socket listener) { return accept(Native(listener), nullptr, nullptr); }

Socket ConnectToLoopback(int port) {
    const int connection = socket(AF_INET, SOCK_STREAM, 0);
    const sockaddr_in address = Loopback(port);
    if (connect(connection, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0) return connection;
    close(connection);
    return noSocket;
}

std::size_t ReceiveBytes(Socket connection, char* buffer, std::size_t size) {
    const ssize_t count = recv(Native(connection), buffer, size, 0);
    return count > 0 ? static_cast<std::size_t>(count) : 0;
}

void SendText(Socket connection, std::string_view text) {
    while (!text.empty()) {
        const ssize_t count = send(Native(connection), text.data(), text.size(), MSG_NOSIGNAL);
        if (count <= 0) return;
        text.remove_prefix(static_cast<std::size_t>(count));
    }
}

void Relay(Socket one, Socket other) {
    std::array<pollfd, 2> sides{{{Native(one), POLLIN, 0}, {Native(other), POLLIN, 0}}};
    std::array<char, 4096> bytes;
    while (poll(sides.data(), sides.size(), -1) > 0) {
        const bool first = sides[0].revents != 0;
        const std::size_t count = ReceiveBytes(first ? one : other, bytes.data(), bytes.size());
        if (count == 0) return;
        SendText(first ? other : one, {bytes.data(), count});
    }
}

void CloseSocket(Socket socket) { close(Native(socket)); }

}  // namespace kv::test

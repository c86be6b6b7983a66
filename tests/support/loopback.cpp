#include "tests/support/loopback.h"

#include <algorithm>
#include <array>
#include <stdexcept>
#include <utility>

#include "native_sockets.h"  // of the target system

namespace kv::test {

namespace {

sockaddr_in Loopback(int port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<std::uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return address;
}

NativeSocket Native(Socket handle) { return static_cast<NativeSocket>(handle); }

NativeSocket OpenSocket() {
    StartSockets();
    return socket(AF_INET, SOCK_STREAM, 0);
}

TransferSize Clipped(std::size_t size) { return static_cast<TransferSize>(std::min<std::size_t>(size, 1 << 20)); }

}  // namespace

Socket ListenOnLoopback(int& port) {
    const NativeSocket listener = OpenSocket();
    sockaddr_in address = Loopback(0);
    socklen_t size = sizeof address;
    if (bind(listener, reinterpret_cast<sockaddr*>(&address), size) != 0 || listen(listener, 16) != 0 ||
        getsockname(listener, reinterpret_cast<sockaddr*>(&address), &size) != 0) {
        throw std::runtime_error("no port to listen on");
    }
    port = ntohs(address.sin_port);
    return static_cast<Socket>(listener);
}

Socket AcceptConnection(Socket listener) { return static_cast<Socket>(accept(Native(listener), nullptr, nullptr)); }

Socket ConnectToLoopback(int port) {
    const NativeSocket connection = OpenSocket();
    const sockaddr_in address = Loopback(port);
    if (connect(connection, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0)
        return static_cast<Socket>(connection);
    CloseNative(connection);
    return noSocket;
}

std::size_t ReceiveBytes(Socket connection, char* buffer, std::size_t size) {
    return static_cast<std::size_t>(std::max<std::ptrdiff_t>(recv(Native(connection), buffer, Clipped(size), 0), 0));
}

void SendText(Socket connection, std::string_view text) {
    while (!text.empty()) {
        const auto count = send(Native(connection), text.data(), Clipped(text.size()), sendFlags);
        if (count <= 0) return;
        text.remove_prefix(static_cast<std::size_t>(count));
    }
}

void Relay(Socket one, Socket other) {
    std::array<pollfd, 2> sides{{{Native(one), POLLIN, 0}, {Native(other), POLLIN, 0}}};
    std::array<char, 4096> bytes;
    while (PollNative(sides.data(), sides.size()) > 0) {
        const bool first = sides[0].revents != 0;
        const std::size_t count = ReceiveBytes(first ? one : other, bytes.data(), bytes.size());
        if (count == 0) return;
        SendText(first ? other : one, {bytes.data(), count});
    }
}

void CloseSocket(Socket socket) { CloseNative(Native(socket)); }

LoopbackServer::LoopbackServer(std::function<void(Socket)> serve) : listener_(ListenOnLoopback(port)) {
    thread_ = std::thread([this, serve = std::move(serve)] {
        for (Socket connection; (connection = AcceptConnection(listener_)) != noSocket;) {
            if (!ended_) serve(connection);
            CloseSocket(connection);
            if (ended_) return;
        }
    });
}

LoopbackServer::~LoopbackServer() {
    ended_ = true;
    CloseSocket(ConnectToLoopback(port));  // wakes the thread
    thread_.join();
    CloseSocket(listener_);
}

}  // namespace kv::test

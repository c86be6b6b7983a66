#include "tests/exchange/http_peers.h"

#include <arpa/inet.h>
#include <array>
#include <cstdint>
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

int Dial(int port) {
    const int peer = socket(AF_INET, SOCK_STREAM, 0);
    const sockaddr_in address = Loopback(port);
    if (connect(peer, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0) return peer;
    close(peer);
    return -1;
}

/// Moves what has come from one side to the other; false when that side has hung up.
bool Move(int from, int to) {
    std::array<char, 4096> bytes;
    const ssize_t count = recv(from, bytes.data(), bytes.size(), 0);
    if (count <= 0) return false;
    SendText(to, {bytes.data(), static_cast<std::size_t>(count)});
    return true;
}

void Relay(int one, int other) {
    std::array<pollfd, 2> sides{{{one, POLLIN, 0}, {other, POLLIN, 0}}};
    while (poll(sides.data(), sides.size(), -1) > 0) {
        if (sides[0].revents != 0 && !Move(one, other)) return;
        if (sides[1].revents != 0 && !Move(other, one)) return;
    }
}

}  // namespace

void SendText(int connection, std::string_view text) {
    while (!text.empty()) {
        const ssize_t count = send(connection, text.data(), text.size(), MSG_NOSIGNAL);
        if (count <= 0) return;
        text.remove_prefix(static_cast<std::size_t>(count));
    }
}

RawServer::RawServer(Handler handler) : handler_(std::move(handler)), listener_(socket(AF_INET, SOCK_STREAM, 0)) {
    sockaddr_in address = Loopback(0);
    socklen_t size = sizeof address;
    if (bind(listener_, reinterpret_cast<sockaddr*>(&address), size) != 0 || listen(listener_, 16) != 0 ||
        getsockname(listener_, reinterpret_cast<sockaddr*>(&address), &size) != 0) {
        throw std::runtime_error("no port to listen on");
    }
    port = ntohs(address.sin_port);
    acceptor_ = std::thread([this] {
        for (int connection; (connection = accept(listener_, nullptr, nullptr)) >= 0;) {
            connections_.emplace_back([this, connection] { Serve(connection); });
        }
    });
}

RawServer::~RawServer() {
    shutdown(listener_, SHUT_RDWR);
    acceptor_.join();
    close(listener_);
    for (std::thread& connection : connections_) connection.join();
}

std::vector<std::string> RawServer::requests() const {
    const std::lock_guard lock(mutex_);
    return requests_;
}

void RawServer::Serve(int connection) {
    std::string request;
    const auto complete = [&] { return request.ends_with("\r\n\r\n") || request.starts_with('\x16'); };
    for (char c; !complete() && recv(connection, &c, 1, 0) == 1;) request += c;
    {
        const std::lock_guard lock(mutex_);
        requests_.push_back(request);
    }
    handler_(connection, request);
    close(connection);
}

RawServer::Handler Says(std::string text) {
    return [text = std::move(text)](int connection, const std::string&) { SendText(connection, text); };
}

RawServer::Handler SaysAndHolds(std::string text) {
    return [text = std::move(text)](int connection, const std::string&) {
        SendText(connection, text);
        for (char c; recv(connection, &c, 1, 0) == 1;) continue;
    };
}

RawServer::Handler Forwards(std::string wantedAuthorization) {
    return [wanted = std::move(wantedAuthorization)](int connection, const std::string& request) {
        if (!wanted.empty() && request.find("\r\nProxy-Authorization: " + wanted + "\r\n") == std::string::npos) {
            SendText(connection, "HTTP/1.1 407 Proxy Authentication Required\r\nContent-Length: 2\r\n\r\nno");
            return;
        }
        const bool tunnel = request.starts_with("CONNECT ");
        const std::size_t authority = tunnel ? 8 : request.find("://") + 3;
        const int peer = Dial(std::stoi(request.substr(request.find(':', authority) + 1)));
        if (peer < 0) {
            SendText(connection, "HTTP/1.1 502 Bad Gateway\r\nContent-Length: 0\r\n\r\n");
            return;
        }
        if (tunnel) {
            SendText(connection, "HTTP/1.1 200 Connection established\r\nX-Proxy: here\r\n\r\n");
        } else {
            SendText(peer, request.substr(0, request.find(' ') + 1) + request.substr(request.find('/', authority)));
        }
        Relay(connection, peer);
        close(peer);
    };
}

}  // namespace kv::test

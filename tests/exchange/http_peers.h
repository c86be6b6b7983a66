// Transactions in tests, and the servers that they meet: a well-behaved one, one that says anything, and a proxy.
// What their threads note is read once the transaction has ended.
#pragma once

#include <arpa/inet.h>
#include <array>
#include <cstdint>
#include <functional>
#include <httplib.h>
#include <memory>
#include <netinet/in.h>
#include <poll.h>
#include <stdexcept>
#include <string>
#include <string_view>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include "exchange/http_transaction.h"
#include "foundation/agent_state.h"
#include "tests/support/test_agent.h"

namespace kv::test {

/// A server of cpp-httplib, on a free port and a thread of its own. Its routes are added before the first request.
struct RunningServer {
    explicit RunningServer(std::unique_ptr<httplib::Server> made = std::make_unique<httplib::Server>())
        : server(std::move(made)), port(server->bind_to_any_port("127.0.0.1")) {
        server->set_keep_alive_max_count(1);
        thread = std::thread([this] { server->listen_after_bind(); });
        while (!server->is_running()) std::this_thread::yield();
    }
    ~RunningServer() {
        server->stop();
        thread.join();
    }

    std::unique_ptr<httplib::Server> server;
    int port;
    std::thread thread;
};

inline sockaddr_in Loopback(int port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<std::uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return address;
}

/// Takes one connection at a time on 127.0.0.1, reads a request's headers (or the first byte of a secure greeting),
/// hands the connection over and closes it afterwards.
class RawServer {
  public:
    using Handler = std::function<void(int connection, const std::string& request)>;

    explicit RawServer(Handler handler) : handler_(std::move(handler)), listener_(socket(AF_INET, SOCK_STREAM, 0)) {
        sockaddr_in address = Loopback(0);
        socklen_t size = sizeof address;
        if (bind(listener_, reinterpret_cast<sockaddr*>(&address), size) != 0 || listen(listener_, 16) != 0 ||
            getsockname(listener_, reinterpret_cast<sockaddr*>(&address), &size) != 0) {
            throw std::runtime_error("no port to listen on");
        }
        port = ntohs(address.sin_port);
        thread_ = std::thread([this] {
            for (int connection; (connection = accept(listener_, nullptr, nullptr)) >= 0;) Serve(connection);
        });
    }
    ~RawServer() {
        shutdown(listener_, SHUT_RDWR);
        thread_.join();
        close(listener_);
    }

    int port = 0;
    std::vector<std::string> requests;  // the headers of all, in the order of their coming

  private:
    void Serve(int connection) {
        std::string request;
        const auto complete = [&] { return request.ends_with("\r\n\r\n") || request.starts_with('\x16'); };
        for (char c; !complete() && recv(connection, &c, 1, 0) == 1;) request += c;
        requests.push_back(request);
        handler_(connection, request);
        close(connection);
    }

    Handler handler_;
    int listener_;
    std::thread thread_;
};

inline void SendText(int connection, std::string_view text) {
    while (!text.empty()) {
        const ssize_t count = send(connection, text.data(), text.size(), MSG_NOSIGNAL);
        if (count <= 0) return;
        text.remove_prefix(static_cast<std::size_t>(count));
    }
}

/// Sends a text and hangs up, or waits until the other side does.
inline RawServer::Handler Says(std::string text, bool holds = false) {
    return [text = std::move(text), holds](int connection, const std::string&) {
        SendText(connection, text);
        for (char c; holds && recv(connection, &c, 1, 0) == 1;) continue;
    };
}

/// Passes on what comes from either side until one hangs up.
inline void Relay(int one, int other) {
    std::array<pollfd, 2> sides{{{one, POLLIN, 0}, {other, POLLIN, 0}}};
    std::array<char, 4096> bytes;
    while (poll(sides.data(), sides.size(), -1) > 0) {
        const bool first = sides[0].revents != 0;
        const ssize_t count = recv(first ? one : other, bytes.data(), bytes.size(), 0);
        if (count <= 0) return;
        SendText(first ? other : one, {bytes.data(), static_cast<std::size_t>(count)});
    }
}

/// A proxy that forwards tunnels and plain requests, and answers 407 to those without the credentials it wants.
inline RawServer::Handler Forwards(std::string wantedAuthorization) {
    return [wanted = std::move(wantedAuthorization)](int connection, const std::string& request) {
        if (request.find("\r\nProxy-Authorization: " + wanted + "\r\n") == std::string::npos) {
            SendText(connection, "HTTP/1.1 407 Proxy Authentication Required\r\nContent-Length: 2\r\n\r\nno");
            return;
        }
        const bool tunnel = request.starts_with("CONNECT ");
        const std::size_t authority = tunnel ? 8 : request.find("://") + 3;
        const sockaddr_in address = Loopback(std::stoi(request.substr(request.find(':', authority) + 1)));
        const int peer = socket(AF_INET, SOCK_STREAM, 0);
        connect(peer, reinterpret_cast<const sockaddr*>(&address), sizeof address);
        if (tunnel) {
            SendText(connection, "HTTP/1.1 200 Connection established\r\nX-Proxy: here\r\n\r\n");
        } else {
            SendText(peer, request.substr(0, request.find(' ') + 1) + request.substr(request.find('/', authority)));
        }
        Relay(connection, peer);
        close(peer);
    };
}

/// An agent whose server is on this computer and speaks plain HTTP.
class HttpTest : public TestAgent {
  protected:
    HttpTest() {
        agentState.gv_LastAccessName.publish(u"127.0.0.1");
        agentState.gv_httpsEnabled = 0;
    }

    static platform::Error Get(int port, std::u16string url, OptionalText* response = nullptr,
                               RequestKind kind = RequestKind::REQUEST_GET) {
        agentState.gv_ServerPort = port;
        return AgentSendRequest({}, 0, url, {}, response, kind, 0, false);
    }
    static platform::Error Post(int port, std::u16string url, std::string_view body, std::size_t length,
                                RequestKind kind = RequestKind::REQUEST_POST_BINARY) {
        agentState.gv_ServerPort = port;
        return AgentSendRequest({}, 0, url, {.body = body}, nullptr, kind, length, false);
    }
};

}  // namespace kv::test

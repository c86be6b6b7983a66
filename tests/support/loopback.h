// Plain TCP connections on 127.0.0.1, for the servers and proxies of tests.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <string_view>
#include <thread>

namespace kv::test {

/// A socket of the system, or noSocket.
using Socket = std::intptr_t;
inline constexpr Socket noSocket = -1;

/// Listens on a free port and stores its number. Throws if no port is free.
Socket ListenOnLoopback(int& port);

/// The next connection, or noSocket if listening has failed.
Socket AcceptConnection(Socket listener);

/// A connection to a port, or noSocket if nobody listens.
Socket ConnectToLoopback(int port);

/// How many bytes came, at least one; 0 once the other side is gone.
std::size_t ReceiveBytes(Socket connection, char* buffer, std::size_t size);

/// Sends a whole text, or as much as the other side takes.
void SendText(Socket connection, std::string_view text);

/// Passes on what comes from either side until one hangs up.
void Relay(Socket one, Socket other);

void CloseSocket(Socket socket);

/// Serves one connection at a time on a thread of its own, and closes it. What the function uses has to outlive it.
class LoopbackServer {
  public:
    explicit LoopbackServer(std::function<void(Socket connection)> serve);
    ~LoopbackServer();

    int port = 0;

  private:
    Socket listener_;
    std::atomic<bool> ended_ = false;
    std::thread thread_;
};

}  // namespace kv::test

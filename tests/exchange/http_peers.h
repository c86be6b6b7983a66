// Servers that a transaction meets in tests beside the well-behaved ones: one that says anything, and a proxy.
#pragma once

#include <functional>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

namespace kv::test {

/// Accepts connections on 127.0.0.1, reads a request's headers (or the first byte of a secure greeting) and hands the
/// connection over; closes it afterwards.
class RawServer {
  public:
    using Handler = std::function<void(int connection, const std::string& request)>;

    explicit RawServer(Handler handler);
    ~RawServer();

    /// The headers of all requests, in the order of their coming.
    std::vector<std::string> requests() const;

    int port = 0;

  private:
    void Serve(int connection);

    Handler handler_;
    int listener_;
    mutable std::mutex mutex_;
    std::vector<std::string> requests_;
    std::vector<std::thread> connections_;
    std::thread acceptor_;
};

void SendText(int connection, std::string_view text);

/// Handlers: send a text and hang up; send it and wait until the other side hangs up; forward tunnels and plain
/// requests as a proxy that answers 407 to those without the credentials it wants.
RawServer::Handler Says(std::string text);
RawServer::Handler SaysAndHolds(std::string text);
RawServer::Handler Forwards(std::string wantedAuthorization);

}  // namespace kv::test

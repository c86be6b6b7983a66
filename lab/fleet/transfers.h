// HTTP requests that go on side by side in one thread, each on a connection of its own as agents open them. By libcurl.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

namespace kv::lab {

struct TransferRequest {
    std::string path;         // with its query
    const std::string* body;  // null for a GET; must outlive the transfer
};

struct TransferOutcome {
    std::string failure;   // empty when the server said 200, else what it said or why nothing came
    std::string agentKey;  // of the header "AgentKey", if there was one
    std::string text;      // the answer's body
    double seconds = 0;
    std::int64_t bytesSent = 0;  // headers and body
    std::int64_t bytesReceived = 0;
};

class Transfers {
  public:
    /// address: "http://host:port" without a slash at its end. An empty CA file means that certificates are not
    /// verified, as agents do by default. Throws std::runtime_error when libcurl cannot start.
    Transfers(std::string address, std::string caFile);
    ~Transfers();
    Transfers(const Transfers&) = delete;
    Transfers& operator=(const Transfers&) = delete;

    /// Starts a request; done is called from Wait.
    void Start(const TransferRequest& request, std::function<void(const TransferOutcome&)> done);

    /// Lets transfers go on for so long, or until one has ended.
    void Wait(std::chrono::milliseconds time);

    std::size_t running() const;

    /// Ends what is running. Nobody is told of it.
    void Abandon();

  private:
    struct State;
    std::unique_ptr<State> state_;
};

}  // namespace kv::lab

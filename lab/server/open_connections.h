// The connections of a server. When they become too many, those that have been idle for the longest time are ended.
#pragma once

#include <cstddef>
#include <list>
#include <mutex>

namespace kv::lab {

class OpenConnections {
  public:
    struct Connection {
        int socket = -1;
        bool idle = true;
        std::list<Connection*>::iterator place;  // among the idle ones
    };

    /// The most that are kept open while some are idle.
    explicit OpenConnections(std::size_t most) : most_(most) {}

    /// The connection is idle, and ended by shutting its socket down when it has to go. Belongs to the caller until
    /// Remove, which has to come before the socket is closed.
    Connection* Add(int socket);
    void Remove(Connection* connection);

    /// A request begins, or has ended.
    void SetIdle(Connection& connection, bool idle);

  private:
    const std::size_t most_;
    std::mutex mutex_;             // guards what follows, and the idle connections
    std::list<Connection*> idle_;  // the longest first
    std::size_t count_ = 0;
};

}  // namespace kv::lab

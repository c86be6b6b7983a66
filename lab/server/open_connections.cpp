#include "lab/server/open_connections.h"

#include <memory>
#include <sys/socket.h>

namespace kv::lab {

OpenConnections::Connection* OpenConnections::Add(int socket) {
    auto connection = std::make_unique<Connection>();
    connection->socket = socket;
    const std::lock_guard guard(mutex_);
    connection->place = idle_.insert(idle_.end(), connection.get());
    ++count_;
    if (count_ > most_) {
        // It stays in the list until it is removed, but not as the first one to go.
        shutdown(idle_.front()->socket, SHUT_RDWR);
        idle_.splice(idle_.end(), idle_, idle_.begin());
    }
    return connection.release();
}

void OpenConnections::Remove(Connection* connection) {
    const std::unique_ptr<Connection> owned(connection);
    const std::lock_guard guard(mutex_);
    if (connection->idle) idle_.erase(connection->place);
    --count_;
}

void OpenConnections::SetIdle(Connection& connection, bool idle) {
    const std::lock_guard guard(mutex_);
    if (connection.idle == idle) return;
    connection.idle = idle;
    if (idle) {
        connection.place = idle_.insert(idle_.end(), &connection);
    } else {
        idle_.erase(connection.place);
    }
}

}  // namespace kv::lab

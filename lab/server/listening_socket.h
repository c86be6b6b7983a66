// A socket that listens for the lab's server.
#pragma once

#include <string>

namespace kv::lab {

/// Listens on an address of this computer, or a name of one, and a port; 0 takes any free one. On "::" also by IPv4.
/// The caller owns the socket. Throws ServerError.
int ListenOn(const std::string& address, int port);

/// The port on which a socket listens.
int PortOf(int socket);

}  // namespace kv::lab

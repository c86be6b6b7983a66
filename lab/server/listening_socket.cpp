#include "lab/server/listening_socket.h"

#include <cerrno>
#include <fmt/format.h>
#include <memory>
#include <netdb.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <system_error>
#include <unistd.h>

#include "lab/server/server_error.h"
#include "platform/owned_handle.h"

namespace kv::lab {

namespace {

using platform::OwnedHandle;
using platform::ReleasedBy;

using Addresses = std::unique_ptr<addrinfo, ReleasedBy<freeaddrinfo>>;
using Socket = OwnedHandle<int, close, -1>;

[[noreturn]] void Fail(const std::string& address, int port, const std::string& reason) {
    throw ServerError(fmt::format("cannot listen on {} port {}: {}", address, port, reason));
}

Addresses Resolve(const std::string& address, int port) {
    addrinfo hints{};
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_flags = AI_PASSIVE | AI_NUMERICSERV;
    addrinfo* found = nullptr;
    const int fault = getaddrinfo(address.c_str(), std::to_string(port).c_str(), &hints, &found);
    if (fault == EAI_SYSTEM) Fail(address, port, std::generic_category().message(errno));
    if (fault != 0) Fail(address, port, fmt::format("{}; is it an address of this computer?", gai_strerror(fault)));
    return Addresses(found);
}

/// An empty owner when it cannot be done; errno says why.
Socket Listen(const addrinfo& place) {
    Socket made(socket(place.ai_family, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    if (!made) return made;
    const int yes = 1;
    const int no = 0;
    setsockopt(made.get(), SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);
    if (place.ai_family == AF_INET6) setsockopt(made.get(), IPPROTO_IPV6, IPV6_V6ONLY, &no, sizeof no);
    const bool listens = bind(made.get(), place.ai_addr, place.ai_addrlen) == 0 && listen(made.get(), SOMAXCONN) == 0;
    return listens ? std::move(made) : Socket();
}

}  // namespace

int ListenOn(const std::string& address, int port) {
    const Addresses places = Resolve(address, port);
    for (const addrinfo* place = places.get(); place != nullptr; place = place->ai_next)
        if (Socket socket = Listen(*place)) return socket.Release();
    Fail(address, port, std::generic_category().message(errno));
}

int PortOf(int socket) {
    sockaddr_storage own{};
    socklen_t length = sizeof own;
    getsockname(socket, reinterpret_cast<sockaddr*>(&own), &length);
    return ntohs(own.ss_family == AF_INET6 ? reinterpret_cast<const sockaddr_in6&>(own).sin6_port
                                           : reinterpret_cast<const sockaddr_in&>(own).sin_port);
}

}  // namespace kv::lab

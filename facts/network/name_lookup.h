// Lookups of hosts whose end is waited for only so long: a name server may be silent for half a minute.
#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <netdb.h>
#include <string>
#include <sys/socket.h>

namespace kv::facts {

/// An address of any family.
struct SocketAddress {
    sockaddr_storage held{};
    socklen_t length = 0;

    bool isVersion4() const { return held.ss_family == AF_INET; }
    const sockaddr* plain() const { return reinterpret_cast<const sockaddr*>(&held); }
};

struct NameLookup {
    int error = EAI_AGAIN;  // of getaddrinfo(3)
    SocketAddress address;
    std::string name;
};

/// The address of a host; flags are those of getaddrinfo(3).
NameLookup LookUpAddress(const std::string& host, int flags);

/// The name of an address, or with NI_NUMERICHOST its text; empty if it has none. flags are those of getnameinfo(3).
std::string NameOf(const SocketAddress& address, int flags);

/// A lookup on a thread of its own, which may outlive whoever waits for it. If too many are under way, or no further
/// thread can be had, it ends at once with EAI_AGAIN; so does one that throws. Any thread may wait.
class NameLookupThread {
  public:
    explicit NameLookupThread(std::function<NameLookup()> lookUp);

    /// What was found; EAI_AGAIN if the lookup has not ended by then.
    NameLookup Wait(std::chrono::steady_clock::time_point until) const;

  private:
    struct End;
    std::shared_ptr<End> end_;
};

}  // namespace kv::facts

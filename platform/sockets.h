// Host names and IPv4 addresses. Errors are system error numbers; hostNotFound when a name or address is unknown.
#pragma once

#include <functional>
#include <string>
#include <string_view>

#include "platform/errors.h"
#include "platform/seam.h"

namespace platform {

/// What a lookup found; narrow text, UTF-8.
struct HostEntry {
    std::string name;     // official name
    std::string address;  // first IPv4 address, dotted
};

struct SocketOperations {
    /// Brings up the socket library where the system has one to bring up; each call is paired with WSACleanup.
    std::function<Error(int majorVersion, int minorVersion)> WSAStartup;
    std::function<void()> WSACleanup;

    /// This computer's own host name.
    std::function<Error(std::string& name)> gethostname;

    std::function<Error(std::string_view name, HostEntry& host)> gethostbyname;

    /// Looks a dotted IPv4 address up; invalidParameter when the text is none.
    std::function<Error(std::string_view dottedAddress, HostEntry& host)> gethostbyaddr;
};

inline const SocketOperations& Sockets() { return CurrentOperations<SocketOperations>(); }

}  // namespace platform

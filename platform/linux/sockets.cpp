#include <arpa/inet.h>
#include <array>
#include <cerrno>
#include <cstring>
#include <memory>
#include <netdb.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include "platform/guarded.h"
#include "platform/linux/datagrams.h"
#include "platform/linux/descriptor.h"
#include "platform/linux/linux.h"

namespace platform {

namespace {

using AddressList = std::unique_ptr<addrinfo, ReleasedBy<freeaddrinfo>>;

Error LookupError(int code) {
    if (code == EAI_SYSTEM && errno != 0) return ErrorFromErrno(errno);
    return code == EAI_MEMORY ? error::notEnoughMemory : error::hostNotFound;
}

Error OwnHostName(std::string& name) {
    std::array<char, 256> buffer{};
    if (gethostname(buffer.data(), buffer.size() - 1) != 0) return ErrorFromErrno(errno);
    name = buffer.data();
    return error::success;
}

Error HostByName(std::string_view name, HostEntry& host) {
    addrinfo hints{};
    hints.ai_family = AF_INET;
    hints.ai_socktype = SOCK_DGRAM;
    hints.ai_flags = AI_CANONNAME;
    addrinfo* found = nullptr;
    const std::string asked(name);
    if (const int code = getaddrinfo(asked.c_str(), nullptr, &hints, &found); code != 0) return LookupError(code);
    const AddressList list(found);
    std::array<char, NI_MAXHOST> dotted{};
    if (const int code =
            getnameinfo(found->ai_addr, found->ai_addrlen, dotted.data(), dotted.size(), nullptr, 0, NI_NUMERICHOST);
        code != 0) {
        return LookupError(code);
    }
    host.name = found->ai_canonname != nullptr ? found->ai_canonname : asked;
    host.address = dotted.data();
    return error::success;
}

Error HostByAddress(std::string_view dottedAddress, HostEntry& host) {
    const std::string asked(dottedAddress);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    if (inet_pton(AF_INET, asked.c_str(), &address.sin_addr) != 1) return error::invalidParameter;
    std::array<char, NI_MAXHOST> name{};
    const auto* generic = reinterpret_cast<const sockaddr*>(&address);
    if (const int code = getnameinfo(generic, sizeof address, name.data(), name.size(), nullptr, 0, NI_NAMEREQD);
        code != 0) {
        return LookupError(code);
    }
    host.name = name.data();
    host.address = asked;
    return error::success;
}

/// Connecting a datagram socket sends nothing: it makes the kernel choose the route, and with it the own address.
Error DefaultRouteAddress(std::string& dottedAddress) {
    const Descriptor probe(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    if (!probe) return ErrorFromErrno(errno);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(9);
    address.sin_addr.s_addr = htonl(0xC6336401);  // 198.51.100.1, of documentation: any far address
    auto* const generic = reinterpret_cast<sockaddr*>(&address);
    socklen_t size = sizeof address;
    if (connect(probe.get(), generic, size) != 0 || getsockname(probe.get(), generic, &size) != 0)
        return error::hostNotFound;
    const std::uint32_t own = ntohl(address.sin_addr.s_addr);
    if (own == INADDR_ANY || own >> 24 == IN_LOOPBACKNET) return error::hostNotFound;
    std::array<std::uint8_t, 4> bytes{};
    std::memcpy(bytes.data(), &address.sin_addr, bytes.size());
    dottedAddress = TextFromAddress(bytes);
    return error::success;
}

}  // namespace

SocketOperations LinuxSockets() {
    return {
        .WSAStartup = [](int, int) { return error::success; },
        .WSACleanup = [] {},
        .gethostname = Guarded(OwnHostName),
        .gethostbyname = Guarded(HostByName),
        .gethostbyaddr = Guarded(HostByAddress),
        .GetDefaultRouteAddress = Guarded(DefaultRouteAddress),
        .inet_addr = AddressFromText,
        .inet_ntoa = TextFromAddress,
        .socket = OpenDatagramSocket,
        .bind = BindSocket,
        .select = WaitForDatagram,
        .sendto = SendDatagram,
        .recvfrom = ReceiveDatagram,
        .closesocket = CloseSocket,
    };
}

}  // namespace platform

#include <arpa/inet.h>
#include <array>
#include <cerrno>
#include <memory>
#include <netdb.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include "platform/posix/datagrams.h"
#include "platform/posix/posix.h"

namespace platform {

namespace {

using AddressList = std::unique_ptr<addrinfo, decltype(&freeaddrinfo)>;

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
    const AddressList list(found, freeaddrinfo);
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

}  // namespace

SocketOperations PosixSockets() {
    return {
        .WSAStartup = [](int, int) { return error::success; },
        .WSACleanup = [] {},
        .gethostname = OwnHostName,
        .gethostbyname = HostByName,
        .gethostbyaddr = HostByAddress,
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

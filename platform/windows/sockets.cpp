#include <algorithm>
#include <array>
#include <cstring>
#include <fmt/format.h>
#include <limits>
#include <memory>

#include "platform/guarded.h"
#include "platform/owned_handle.h"
#include "platform/utf.h"
#include "platform/windows/computer_name.h"
#include "platform/windows/win32.h"

// After the system's main header, which it needs.
#include <ws2tcpip.h>

namespace platform {

namespace {

constexpr std::int64_t microsecondsInSecond = 1'000'000;
constexpr std::int64_t longestWait = std::int64_t{365} * 24 * 60 * 60 * microsecondsInSecond;

/// Of sockets in version 2 that child processes do not get; systems older than Windows 7 with its service pack refuse
/// it.
constexpr DWORD notInherited = 0x80;

/// Whether a datagram that was not delivered makes a later receive fail. Here that would look like the answer of the
/// device that is being asked.
constexpr DWORD reportUnreachablePort = _WSAIOW(IOC_VENDOR, 12);
constexpr DWORD reportUnreachableNet = _WSAIOW(IOC_VENDOR, 15);

using AddressList = std::unique_ptr<ADDRINFOW, ReleasedBy<::FreeAddrInfoW>>;

/// Other numbers are the agent's as they are.
Error SocketErrorOf(int code) {
    switch (code) {
        case WSAENOTSOCK:
            return error::invalidHandle;
        case WSAEWOULDBLOCK:
            return error::busy;
        case WSANO_DATA:
            return error::hostNotFound;  // a name without an address of the wanted kind
        case 0:
            return error::generalFailure;
        default:
            return static_cast<Error>(code);
    }
}

Error SocketResultOf(int result) {
    return result == SOCKET_ERROR ? SocketErrorOf(::WSAGetLastError()) : error::success;
}

// The system's handles are 32 bits wide and multiples of four. One more than that never has a low byte of 0, 99 or 255.
bool HasHandle(SOCKET socket) { return socket % 4 == 0 && socket <= std::numeric_limits<SocketHandle>::max() - 1; }
SocketHandle SocketHandleOf(SOCKET socket) { return static_cast<SocketHandle>(socket) + 1; }
SOCKET SocketOf(SocketHandle handle) { return handle % 4 == 1 ? SOCKET{handle} - 1 : INVALID_SOCKET; }

int CloseSystemSocket(SOCKET socket) { return ::closesocket(socket); }
using OwnedSocket = OwnedHandle<SOCKET, CloseSystemSocket, INVALID_SOCKET>;

sockaddr_in SystemAddressOf(const SocketAddress& address) {
    sockaddr_in system{};
    system.sin_family = AF_INET;
    system.sin_port = ::htons(address.port);
    std::memcpy(&system.sin_addr, address.address.data(), address.address.size());
    return system;
}

SocketAddress AddressOf(const sockaddr_in& system) {
    SocketAddress address;
    address.port = ::ntohs(system.sin_port);
    std::memcpy(address.address.data(), &system.sin_addr, address.address.size());
    return address;
}

const sockaddr* Generic(const sockaddr_in& address) { return reinterpret_cast<const sockaddr*>(&address); }

std::string TextFromAddress(const std::array<std::uint8_t, 4>& address) {
    return fmt::format("{}.{}.{}.{}", address[0], address[1], address[2], address[3]);
}

/// Only the form that inet_ntoa gives: the system would take leading zeros too, and read an octal number from them.
bool ParseAddress(const std::string& text, std::array<std::uint8_t, 4>& address) {
    std::array<std::uint8_t, 4> parsed{};
    if (::inet_pton(AF_INET, text.c_str(), parsed.data()) != 1 || TextFromAddress(parsed) != text) return false;
    address = parsed;
    return true;
}

bool AddressFromText(std::string_view dottedAddress, std::array<std::uint8_t, 4>& address) {
    return ParseAddress(std::string(dottedAddress.substr(0, dottedAddress.find(' '))), address);
}

/// The system's own routine would give the name in its code page.
Error OwnHostName(std::string& name) {
    std::u16string wide;
    const Error result = ComputerName(ComputerNameDnsHostname, wide);
    if (result == error::success) name = Utf8FromWide(wide);
    return result;
}

/// To the caller it makes no difference when the question itself failed.
Error LookupErrorOf(int code) {
    return code >= WSAHOST_NOT_FOUND && code <= WSANO_DATA ? error::hostNotFound : SocketErrorOf(code);
}

Error HostByName(std::string_view name, HostEntry& host) {
    if (name.empty()) return error::hostNotFound;  // to the system, this computer
    ADDRINFOW hints{};
    hints.ai_family = AF_INET;
    hints.ai_socktype = SOCK_DGRAM;
    hints.ai_flags = AI_CANONNAME;
    ADDRINFOW* found = nullptr;
    const std::wstring asked = WideOf(WideFromUtf8(name));
    if (const int code = ::GetAddrInfoW(asked.c_str(), nullptr, &hints, &found); code != 0) return LookupErrorOf(code);
    const AddressList list(found);
    sockaddr_in address{};
    std::memcpy(&address, found->ai_addr, std::min(sizeof address, found->ai_addrlen));
    host.name = found->ai_canonname != nullptr ? Utf8FromWide(Utf16FromWide(found->ai_canonname)) : std::string(name);
    host.address = TextFromAddress(AddressOf(address).address);
    return error::success;
}

Error HostByAddress(std::string_view dottedAddress, HostEntry& host) {
    SocketAddress address;
    if (!ParseAddress(std::string(dottedAddress), address.address)) return error::invalidParameter;
    const sockaddr_in system = SystemAddressOf(address);
    std::array<wchar_t, NI_MAXHOST> name{};
    const int code = ::GetNameInfoW(Generic(system), sizeof system, name.data(), name.size(), nullptr, 0, NI_NAMEREQD);
    if (code != 0) return LookupErrorOf(code);
    host.name = Utf8FromWide(Utf16FromWide(name.data()));
    host.address = dottedAddress;
    return error::success;
}

/// Connecting a datagram socket sends nothing: it makes the system choose the route, and with it the own address.
Error DefaultRouteAddress(std::string& dottedAddress) {
    const OwnedSocket probe(::WSASocketW(AF_INET, SOCK_DGRAM, IPPROTO_UDP, nullptr, 0, WSA_FLAG_OVERLAPPED));
    if (!probe) return SocketErrorOf(::WSAGetLastError());
    sockaddr_in system = SystemAddressOf({{198, 51, 100, 1}, 9});  // of documentation: any far address
    auto* const generic = reinterpret_cast<sockaddr*>(&system);
    int size = sizeof system;
    if (::connect(probe.get(), generic, size) != 0 || ::getsockname(probe.get(), generic, &size) != 0)
        return error::hostNotFound;
    const SocketAddress own = AddressOf(system);
    if (own.address[0] == 0 || own.address[0] == 127) return error::hostNotFound;
    dottedAddress = TextFromAddress(own.address);
    return error::success;
}

SOCKET NewSocket() {
    const auto make = [](DWORD flags) {
        return ::WSASocketW(AF_INET, SOCK_DGRAM, IPPROTO_UDP, nullptr, 0, WSA_FLAG_OVERLAPPED | flags);
    };
    const SOCKET socket = make(notInherited);
    return socket == INVALID_SOCKET && ::WSAGetLastError() == WSAEINVAL ? make(0) : socket;
}

void Disable(DWORD report, SOCKET socket) {
    BOOL isWanted = FALSE;
    DWORD size = 0;
    ::WSAIoctl(socket, report, &isWanted, sizeof isWanted, nullptr, 0, &size, nullptr, nullptr);
}

Error OpenDatagramSocket(SocketHandle& handle) {
    handle = 0;
    OwnedSocket socket(NewSocket());
    if (!socket) return SocketErrorOf(::WSAGetLastError());
    if (!HasHandle(socket.get())) return error::invalidHandle;
    ::SetHandleInformation(reinterpret_cast<HANDLE>(socket.get()), HANDLE_FLAG_INHERIT, 0);
    Disable(reportUnreachablePort, socket.get());
    Disable(reportUnreachableNet, socket.get());
    u_long neverWaits = 1;
    if (const Error failure = SocketResultOf(::ioctlsocket(socket.get(), static_cast<long>(FIONBIO), &neverWaits)))
        return failure;
    handle = SocketHandleOf(socket.Release());
    return error::success;
}

Error BindSocket(SocketHandle socket, const SocketAddress& local) {
    const sockaddr_in system = SystemAddressOf(local);
    return SocketResultOf(::bind(SocketOf(socket), Generic(system), sizeof system));
}

Error WaitForDatagram(SocketHandle socket, std::int64_t microseconds, bool& ready) {
    ready = false;
    const std::int64_t wait = std::clamp<std::int64_t>(microseconds, 0, longestWait);
    timeval time{static_cast<long>(wait / microsecondsInSecond), static_cast<long>(wait % microsecondsInSecond)};
    fd_set wanted{};
    wanted.fd_count = 1;
    wanted.fd_array[0] = SocketOf(socket);
    const int count = ::select(0, &wanted, nullptr, nullptr, &time);
    ready = count > 0;
    return SocketResultOf(count);
}

/// A length beyond what fits into any datagram is left to the system to refuse.
int LengthOf(std::size_t length) {
    return static_cast<int>(std::min<std::size_t>(length, std::numeric_limits<int>::max()));
}

Error SendDatagram(SocketHandle socket, const void* bytes, std::size_t length, const SocketAddress& peer,
                   std::size_t& sent) {
    sent = 0;
    const sockaddr_in system = SystemAddressOf(peer);
    const int result = ::sendto(SocketOf(socket), static_cast<const char*>(bytes), LengthOf(length), 0, Generic(system),
                                sizeof system);
    if (result != SOCKET_ERROR) sent = static_cast<std::size_t>(result);
    return SocketResultOf(result);
}

Error ReceiveDatagram(SocketHandle socket, void* buffer, std::size_t capacity, SocketAddress& peer,
                      std::size_t& received) {
    received = 0;
    sockaddr_in system{};
    int size = sizeof system;
    const int result = ::recvfrom(SocketOf(socket), static_cast<char*>(buffer), LengthOf(capacity), 0,
                                  reinterpret_cast<sockaddr*>(&system), &size);
    const int failure = result == SOCKET_ERROR ? ::WSAGetLastError() : 0;
    if (failure == 0 || failure == WSAEMSGSIZE) peer = AddressOf(system);
    if (failure != 0) return SocketErrorOf(failure);
    received = static_cast<std::size_t>(result);
    return error::success;
}

Error StartLibrary(int majorVersion, int minorVersion) {
    WSADATA about{};
    return static_cast<Error>(::WSAStartup(MAKEWORD(majorVersion, minorVersion), &about));
}

}  // namespace

SocketOperations WindowsSockets() {
    // When this fails, what needs it fails as well and says so.
    [[maybe_unused]] static const Error started = StartLibrary(2, 2);
    return {
        .WSAStartup = StartLibrary,
        .WSACleanup = [] { ::WSACleanup(); },
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
        .closesocket = [](SocketHandle socket) { return SocketResultOf(::closesocket(SocketOf(socket))); },
    };
}

}  // namespace platform

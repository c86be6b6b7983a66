#include "platform/linux/datagrams.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <ctime>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <system_error>
#include <unistd.h>

#include "platform/linux/linux.h"

namespace platform {

namespace {

// A handle is four times the descriptor plus one, so that its low byte is never 0, 99 or 255.
SocketHandle SocketHandleOf(int descriptor) { return static_cast<SocketHandle>(descriptor) * 4 + 1; }
int DescriptorOf(SocketHandle handle) { return handle % 4 == 1 ? static_cast<int>(handle / 4) : -1; }

sockaddr_in SystemAddressOf(const SocketAddress& address) {
    sockaddr_in system{};
    system.sin_family = AF_INET;
    system.sin_port = htons(address.port);
    std::memcpy(&system.sin_addr, address.address.data(), address.address.size());
    return system;
}

SocketAddress AddressOf(const sockaddr_in& system) {
    SocketAddress address;
    address.port = ntohs(system.sin_port);
    std::memcpy(address.address.data(), &system.sin_addr, address.address.size());
    return address;
}

constexpr std::int64_t longestWait = std::int64_t{365} * 24 * 60 * 60 * 1'000'000;  // microseconds

/// To within a few milliseconds, which is as close as a wait that was interrupted needs to be.
std::int64_t MicrosecondsNow() {
    timespec time{};
    clock_gettime(CLOCK_MONOTONIC_COARSE, &time);
    return std::int64_t{time.tv_sec} * 1'000'000 + time.tv_nsec / 1000;
}

}  // namespace

/// Parsed here because inet_pton wants a copy with a zero at its end, and a walk calls this for each value.
bool AddressFromText(std::string_view dottedAddress, std::array<std::uint8_t, 4>& address) {
    std::array<std::uint8_t, 4> parts{};
    const char* position = dottedAddress.data();
    const char* const end = position + std::min(dottedAddress.find(' '), dottedAddress.size());
    for (std::size_t part = 0; part < parts.size(); ++part) {
        if (part > 0 && (position == end || *position++ != '.')) return false;
        const auto [next, failure] = std::from_chars(position, end, parts[part]);
        // A number that begins with 0 might be meant as an octal one.
        if (failure != std::errc{} || (*position == '0' && next - position > 1)) return false;
        position = next;
    }
    if (position != end) return false;
    address = parts;
    return true;
}

std::string TextFromAddress(const std::array<std::uint8_t, 4>& address) {
    std::array<char, 4 * 4 + 1> text;  // each part has three digits and a dot
    char* end = text.data();
    for (const std::uint8_t byte : address) {
        end = std::to_chars(end, end + 3, byte).ptr;
        *end++ = '.';
    }
    return {text.data(), end - 1};
}

Error OpenDatagramSocket(SocketHandle& socket) {
    socket = 0;
    const int descriptor = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (descriptor < 0) return ErrorFromErrno(errno);
    socket = SocketHandleOf(descriptor);
    return error::success;
}

Error BindSocket(SocketHandle socket, const SocketAddress& local) {
    const sockaddr_in system = SystemAddressOf(local);
    const auto* generic = reinterpret_cast<const sockaddr*>(&system);
    return ::bind(DescriptorOf(socket), generic, sizeof system) == 0 ? error::success : ErrorFromErrno(errno);
}

Error WaitForDatagram(SocketHandle socket, std::int64_t microseconds, bool& ready) {
    ready = false;
    // A negative descriptor would be passed over, not refused.
    if (DescriptorOf(socket) < 0) return error::invalidHandle;
    const std::int64_t wait = std::clamp<std::int64_t>(microseconds, 0, longestWait);
    const std::int64_t end = MicrosecondsNow() + wait;
    for (std::int64_t left = wait;; left = std::max<std::int64_t>(end - MicrosecondsNow(), 0)) {
        const timespec time{.tv_sec = left / 1'000'000, .tv_nsec = left % 1'000'000 * 1000};
        pollfd wanted{.fd = DescriptorOf(socket), .events = POLLIN, .revents = 0};
        const int count = ppoll(&wanted, 1, &time, nullptr);
        if (count < 0 && errno == EINTR) continue;
        if (count < 0) return ErrorFromErrno(errno);
        if (wanted.revents & POLLNVAL) return error::invalidHandle;
        ready = count > 0;
        return error::success;
    }
}

Error SendDatagram(SocketHandle socket, const void* bytes, std::size_t length, const SocketAddress& peer,
                   std::size_t& sent) {
    sent = 0;
    const sockaddr_in system = SystemAddressOf(peer);
    const auto* generic = reinterpret_cast<const sockaddr*>(&system);
    const ssize_t result = ::sendto(DescriptorOf(socket), bytes, length, 0, generic, sizeof system);
    if (result < 0) return ErrorFromErrno(errno);
    sent = static_cast<std::size_t>(result);
    return error::success;
}

Error ReceiveDatagram(SocketHandle socket, void* buffer, std::size_t capacity, SocketAddress& peer,
                      std::size_t& received) {
    received = 0;
    sockaddr_in system{};
    socklen_t size = sizeof system;
    auto* generic = reinterpret_cast<sockaddr*>(&system);
    const ssize_t result = ::recvfrom(DescriptorOf(socket), buffer, capacity, MSG_DONTWAIT, generic, &size);
    if (result < 0) return ErrorFromErrno(errno);
    peer = AddressOf(system);
    received = static_cast<std::size_t>(result);
    return error::success;
}

Error CloseSocket(SocketHandle socket) {
    return ::close(DescriptorOf(socket)) == 0 ? error::success : ErrorFromErrno(errno);
}

}  // namespace platform

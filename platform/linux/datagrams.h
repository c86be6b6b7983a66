// The datagram half of this system's socket operations; the contract is that of platform/sockets.h.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "platform/sockets.h"

namespace platform {

[[nodiscard]] bool AddressFromText(std::string_view dottedAddress, std::array<std::uint8_t, 4>& address);
std::string TextFromAddress(const std::array<std::uint8_t, 4>& address);
[[nodiscard]] Error OpenDatagramSocket(SocketHandle& socket);
[[nodiscard]] Error BindSocket(SocketHandle socket, const SocketAddress& local);
[[nodiscard]] Error WaitForDatagram(SocketHandle socket, std::int64_t microseconds, bool& ready);
[[nodiscard]] Error SendDatagram(SocketHandle socket, const void* bytes, std::size_t length, const SocketAddress& peer,
                                 std::size_t& sent);
[[nodiscard]] Error ReceiveDatagram(SocketHandle socket, void* buffer, std::size_t capacity, SocketAddress& peer,
                                    std::size_t& received);
Error CloseSocket(SocketHandle socket);

}  // namespace platform

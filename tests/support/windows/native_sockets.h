// Sockets under this system's names.
#pragma once

#include <cstddef>
#include <ws2tcpip.h>

namespace kv::test {

using NativeSocket = SOCKET;
using TransferSize = int;
inline constexpr int sendFlags = 0;

inline void StartSockets() {
    WSADATA about;
    static const int started = ::WSAStartup(MAKEWORD(2, 2), &about);
    static_cast<void>(started);  // if it failed, no socket opens
}
inline int PollNative(pollfd* sockets, std::size_t count) { return ::WSAPoll(sockets, static_cast<ULONG>(count), -1); }
inline void CloseNative(NativeSocket socket) { ::closesocket(socket); }

}  // namespace kv::test

// Sockets under this system's names.
#pragma once

#include <arpa/inet.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

namespace kv::test {

using NativeSocket = int;
using TransferSize = std::size_t;
inline constexpr int sendFlags = MSG_NOSIGNAL;

inline void StartSockets() {}
inline int PollNative(pollfd* sockets, std::size_t count) { return poll(sockets, count, -1); }
inline void CloseNative(NativeSocket socket) { close(socket); }

}  // namespace kv::test

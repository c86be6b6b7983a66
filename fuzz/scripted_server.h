// A server of HTTP answers for a fuzz target, in the thread of its client and in time that passes only when both wait.
//
// The client's own calls of the system drive it, which these definitions take the place of: connect leads every TCP
// connection here, whatever its address, getaddrinfo gives every name this computer's address, each poll lets the
// server do its next step, and a poll that finds nothing moves the monotonic clock on instead of waiting. So a minute
// of silence takes no time, no name is looked up, and nothing goes beyond the loopback.
//
// For one program: a source of it includes this once.
#pragma once

#include <algorithm>
#include <arpa/inet.h>
#include <atomic>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <ctime>
#include <dlfcn.h>
#include <netdb.h>
#include <netinet/in.h>
#include <poll.h>
#include <string>
#include <string_view>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>
#include <utility>
#include <vector>

namespace kv::fuzz {

/// What the server does on one connection.
struct ScriptedAnswer {
    enum class Ending { closes, endsSending, resets, holds };

    std::vector<std::string> pieces;  // each sent in a step of its own
    Ending ending = Ending::closes;
};

class ScriptedServer {
  public:
    /// The client has this much on its way at most, so that a body of some hundred kilobytes does not fit.
    static constexpr int bufferBytes = 8192;

    ScriptedServer() : listener_(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        sockaddr_in address = Loopback(0);
        socklen_t size = sizeof address;
        setsockopt(listener_, SOL_SOCKET, SO_RCVBUF, &bufferBytes, sizeof bufferBytes);
        if (bind(listener_, reinterpret_cast<sockaddr*>(&address), size) != 0 || listen(listener_, 8) != 0 ||
            getsockname(listener_, reinterpret_cast<sockaddr*>(&address), &size) != 0)
            __builtin_trap();
        port = ntohs(address.sin_port);
    }
    ScriptedServer(const ScriptedServer&) = delete;
    ScriptedServer& operator=(const ScriptedServer&) = delete;
    ~ScriptedServer() { close(listener_); }

    /// From now on connections get these answers in turn, and the last one again and again. An impatient server answers
    /// at once, any other when nothing more comes. A deaf one reads nothing, and has to be impatient.
    void Begin(std::vector<ScriptedAnswer> answers, bool impatient, bool deaf) {
        answers_ = std::move(answers);
        impatient_ = impatient || deaf;
        deaf_ = deaf;
        used_ = 0;
    }

    /// Ends the connection that is open.
    void Reset() {
        const linger abort{.l_onoff = 1, .l_linger = 0};
        setsockopt(connection_, SOL_SOCKET, SO_LINGER, &abort, sizeof abort);
        Close();
    }

    /// Connects a client's socket.
    int Accept(int client) {
        Reset();
        setsockopt(client, SOL_SOCKET, SO_SNDBUF, &bufferBytes, sizeof bufferBytes);
        const sockaddr_in address = Loopback(port);
        const auto result = static_cast<int>(syscall(SYS_connect, client, &address, sizeof address));
        const int reason = errno;
        if (result == 0 || reason == EINPROGRESS) {
            connection_ = accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
            answer_ = answers_.empty() ? ScriptedAnswer() : answers_[std::min(used_++, answers_.size() - 1)];
            nextPiece_ = sentOfPiece_ = received = sent = 0;
            head_.clear();
        }
        errno = reason;
        return result;
    }

    bool isConnected() const { return connection_ >= 0; }

    /// Reads what has come, or sends the next piece, or ends the connection.
    void Step() {
        const std::size_t before = received;
        if (!isConnected() || (!deaf_ && !Read())) return;
        if (!impatient_ && nextPiece_ == 0 && (received == 0 || received > before)) return;
        if (nextPiece_ < answer_.pieces.size()) return Send();
        switch (answer_.ending) {
            case ScriptedAnswer::Ending::closes:
                return Close();
            case ScriptedAnswer::Ending::endsSending:
                shutdown(connection_, SHUT_WR);
                return;
            case ScriptedAnswer::Ending::resets:
                return Reset();
            case ScriptedAnswer::Ending::holds:
                return;
        }
    }

    int port = 0;
    std::size_t received = 0;  // on the last connection, what its system has taken included once it is closed
    std::size_t sent = 0;      // on the last connection

    /// Counts what has come and was not read.
    void CountUnread() {
        int unread = 0;
        char buffer[bufferBytes];
        if (!isConnected() || ioctl(connection_, FIONREAD, &unread) != 0) return;
        KeepHead(buffer, recv(connection_, buffer, sizeof buffer, MSG_PEEK | MSG_DONTWAIT));
        received += static_cast<std::size_t>(unread);
    }

    /// How much of what was received is behind the head of the request; 0 while that has not come.
    std::size_t receivedBody() const {
        const std::size_t end = head_.find("\r\n\r\n");
        return end == std::string::npos ? 0 : received - (end + 4);
    }

  private:
    static sockaddr_in Loopback(int port) {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_port = htons(static_cast<std::uint16_t>(port));
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        return address;
    }

    /// False once the client is gone.
    bool Read() {
        char buffer[16384];
        ssize_t count = 0;
        while ((count = recv(connection_, buffer, sizeof buffer, 0)) > 0) {
            KeepHead(buffer, count);
            received += static_cast<std::size_t>(count);
        }
        if (count < 0 && errno == EAGAIN) return true;
        Close();
        return false;
    }

    void KeepHead(const char* bytes, ssize_t count) {
        if (count > 0 && head_.size() < bufferBytes) head_.append(bytes, static_cast<std::size_t>(count));
    }

    void Send() {
        const std::string_view rest = std::string_view(answer_.pieces[nextPiece_]).substr(sentOfPiece_);
        const ssize_t count = send(connection_, rest.data(), rest.size(), MSG_NOSIGNAL);
        if (count < 0) {
            if (errno != EAGAIN) Close();
            return;
        }
        sent += static_cast<std::size_t>(count);
        sentOfPiece_ += static_cast<std::size_t>(count);
        if (sentOfPiece_ < answer_.pieces[nextPiece_].size()) return;
        ++nextPiece_;
        sentOfPiece_ = 0;
    }

    void Close() {
        if (!isConnected()) return;
        CountUnread();
        close(std::exchange(connection_, -1));
    }

    int listener_;
    int connection_ = -1;
    std::vector<ScriptedAnswer> answers_;
    bool impatient_ = false;
    bool deaf_ = false;
    std::size_t used_ = 0;  // of the answers
    std::string head_;      // what the last connection has received first, the request's head within it
    ScriptedAnswer answer_;
    std::size_t nextPiece_ = 0;
    std::size_t sentOfPiece_ = 0;
};

/// The one that clients are led to; null before it is made and after it is gone.
inline ScriptedServer* scriptedServer = nullptr;

/// How far the monotonic clock has been moved on, in milliseconds.
inline std::atomic<std::int64_t> skippedMilliseconds{0};

}  // namespace kv::fuzz

extern "C" {

int clock_gettime(clockid_t clock, timespec* time) noexcept {
    const auto result = static_cast<int>(syscall(SYS_clock_gettime, clock, time));
    if (result != 0 || clock == CLOCK_REALTIME || clock == CLOCK_PROCESS_CPUTIME_ID) return result;
    const std::int64_t skipped = kv::fuzz::skippedMilliseconds;
    time->tv_sec += skipped / 1000;
    time->tv_nsec += skipped % 1000 * 1'000'000;
    if (time->tv_nsec >= 1'000'000'000) {
        time->tv_nsec -= 1'000'000'000;
        ++time->tv_sec;
    }
    return result;
}

/// A client that only looks, without waiting, gives the server no time. Without a connection it waits for threads of
/// its own, which takes real time.
int poll(pollfd* descriptors, nfds_t count, int timeout) {
    kv::fuzz::ScriptedServer* server = kv::fuzz::scriptedServer;
    if (server == nullptr) return static_cast<int>(syscall(SYS_poll, descriptors, count, timeout));
    if (timeout != 0) server->Step();
    const int wait = server->isConnected() ? 0 : std::min(timeout, 5);
    const auto found = static_cast<int>(syscall(SYS_poll, descriptors, count, wait));
    if (found == 0 && timeout > wait) kv::fuzz::skippedMilliseconds += timeout - wait;
    return found;
}

int connect(int descriptor, const sockaddr* address, socklen_t size) {
    kv::fuzz::ScriptedServer* server = kv::fuzz::scriptedServer;
    if (server == nullptr || address->sa_family == AF_UNIX)
        return static_cast<int>(syscall(SYS_connect, descriptor, address, size));
    if (address->sa_family == AF_INET) return server->Accept(descriptor);
    errno = ECONNREFUSED;
    return -1;
}

int getaddrinfo(const char*, const char* service, const addrinfo*, addrinfo** found) {
    using Lookup = int (*)(const char*, const char*, const addrinfo*, addrinfo**);
    static const auto lookUp = reinterpret_cast<Lookup>(dlsym(RTLD_NEXT, "getaddrinfo"));
    addrinfo hints{};
    hints.ai_flags = AI_NUMERICHOST;
    hints.ai_socktype = SOCK_STREAM;
    return lookUp("127.0.0.1", service, &hints, found);
}
}

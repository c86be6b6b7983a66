#include "tests/support/snmp_devices.h"

#include <random>
#include <stdexcept>
#include <utility>

namespace kv::test {

namespace {

using platform::SocketAddress;
using platform::SocketHandle;

constexpr std::array<std::uint8_t, 4> loopback{127, 0, 0, 1};
constexpr std::int64_t aDay = std::int64_t{24} * 60 * 60 * 1'000'000;  // microseconds

SocketHandle OpenSocket(const platform::SocketOperations& sockets) {
    SocketHandle socket = 0;
    if (sockets.socket(socket) != platform::error::success) throw std::runtime_error("no socket");
    return socket;
}

/// Tries ports, because these operations cannot tell which port the system would choose.
std::uint16_t BindToFreePort(const platform::SocketOperations& sockets, SocketHandle socket) {
    std::random_device random;
    for (int attempt = 0; attempt < 1000; ++attempt) {
        const auto port = static_cast<std::uint16_t>(20000 + random() % 10000);
        if (sockets.bind(socket, {loopback, port}) == platform::error::success) return port;
    }
    throw std::runtime_error("no port to bind to");
}

}  // namespace

ScriptedDevice::ScriptedDevice(Answer answer, SentFrom from)
    : sockets_(platform::Sockets()),
      answer_(std::move(answer)),
      socket_(OpenSocket(sockets_)),
      another_(OpenSocket(sockets_)),
      sender_(from == SentFrom::ownPort ? socket_ : another_),
      port_(BindToFreePort(sockets_, socket_)),
      thread_([this] { Serve(); }) {}

ScriptedDevice::~ScriptedDevice() {
    stop_ = true;
    std::size_t sent = 0;
    sockets_.sendto(another_, "", 0, {loopback, port_}, sent);
    thread_.join();
    for (const SocketHandle socket : {socket_, another_}) sockets_.closesocket(socket);
}

void ScriptedDevice::Serve() {
    std::string request(65536, '\0');
    while (true) {
        bool isReady = false;
        sockets_.select(socket_, aDay, isReady);
        if (stop_) return;
        SocketAddress peer;
        std::size_t length = 0;
        if (sockets_.recvfrom(socket_, request.data(), request.size(), peer, length) != platform::error::success)
            continue;
        for (const std::string& datagram : answer_(std::string_view(request).substr(0, length)))
            sockets_.sendto(sender_, datagram.data(), datagram.size(), peer, length);
    }
}

std::string FromHex(std::string_view hex) {
    std::string digits(hex);
    std::erase_if(digits, [](char character) { return character == ' ' || character == '\n'; });
    const bool isHex = digits.find_first_not_of("0123456789abcdefABCDEF") == digits.npos;
    if (!isHex || digits.size() % 2 != 0) throw std::invalid_argument(digits);
    std::string bytes;
    for (std::size_t at = 0; at < digits.size(); at += 2)
        bytes += static_cast<char>(std::stoi(digits.substr(at, 2), nullptr, 16));
    return bytes;
}

std::string Item(std::uint8_t tag, std::string_view content) {
    std::string length;
    for (std::size_t rest = content.size(); rest > 0; rest >>= 8) length.insert(0, 1, static_cast<char>(rest & 0xFF));
    if (content.size() >= 0x80) length.insert(0, 1, static_cast<char>(0x80 | length.size()));
    if (content.empty()) length.assign(1, '\0');
    return static_cast<char>(tag) + length + std::string(content);
}

std::string EncodeAnswer(const DeviceAnswer& answer) {
    const auto number = [](std::uint8_t value) { return Item(0x02, std::string(1, static_cast<char>(value))); };
    std::string variables;
    for (const std::string& variable : answer.variables) variables += variable;
    return Item(0x30, number(answer.version) + Item(0x04, answer.community) +
                          Item(answer.command, number(1) + number(answer.errorStatus) + number(answer.errorIndex) +
                                                   Item(0x30, variables)));
}

}  // namespace kv::test

#include "tests/support/snmp_devices.h"

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <fmt/format.h>
#include <fstream>
#include <iterator>
#include <netinet/in.h>
#include <spawn.h>
#include <stdexcept>
#include <sys/socket.h>
#include <sys/wait.h>
#include <system_error>
#include <unistd.h>

namespace kv::test {

namespace {

constexpr std::chrono::seconds patience{20};

struct Socket {
    explicit Socket(std::uint16_t port) : number(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
        address.sin_family = AF_INET;
        address.sin_port = htons(port);
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        if (number < 0) throw std::system_error(errno, std::generic_category(), "no socket");
    }
    ~Socket() { close(number); }
    Socket(const Socket&) = delete;
    Socket& operator=(const Socket&) = delete;

    sockaddr* where() { return reinterpret_cast<sockaddr*>(&address); }

    int number;
    sockaddr_in address{};
    socklen_t size = sizeof address;
};

std::uint16_t BindToFreePort(Socket& socket) {
    if (bind(socket.number, socket.where(), socket.size) != 0 ||
        getsockname(socket.number, socket.where(), &socket.size) != 0) {
        throw std::system_error(errno, std::generic_category(), "no port to bind to");
    }
    return ntohs(socket.address.sin_port);
}

std::uint16_t FreePort() {
    Socket socket(0);
    return BindToFreePort(socket);
}

void Write(const std::filesystem::path& path, const std::string& text) { std::ofstream(path) << text; }

}  // namespace

SnmpProcess::SnmpProcess() : port_(FreePort()) {
    std::string pattern = (std::filesystem::temp_directory_path() / "snmp-device-XXXXXX").string();
    if (mkdtemp(pattern.data()) == nullptr) throw std::system_error(errno, std::generic_category(), pattern);
    folder_ = pattern;
}

SnmpProcess::~SnmpProcess() {
    if (pid_ > 0) {
        kill(pid_, SIGKILL);
        waitpid(pid_, nullptr, 0);
    }
    std::error_code ignored;
    std::filesystem::remove_all(folder_, ignored);
}

void SnmpProcess::Start(const std::string& commandLine, const std::string& community) {
    const std::string shellLine =
        fmt::format("cd '{}' && exec setpriv --pdeathsig KILL {} >>output 2>&1", folder_.string(), commandLine);
    const char* const arguments[]{"sh", "-c", shellLine.c_str(), nullptr};
    if (posix_spawn(&pid_, "/bin/sh", nullptr, nullptr, const_cast<char* const*>(arguments), environ) != 0)
        throw std::runtime_error("no shell for " + commandLine);

    const std::string getNext =
        fmt::format("MIBS= snmpgetnext -v2c -c '{}' -t 0.05 -r 0 127.0.0.1:{} 1.3 >/dev/null 2>&1", community, port_);
    const auto end = std::chrono::steady_clock::now() + patience;
    while (std::chrono::steady_clock::now() < end && pid_ > 0) {
        if (std::system(getNext.c_str()) == 0) return;
        if (waitpid(pid_, nullptr, WNOHANG) != 0) pid_ = 0;
    }
    std::ifstream printed(folder_ / "output");
    throw std::runtime_error(fmt::format("{} does not answer. It has printed: {}", commandLine,
                                         std::string(std::istreambuf_iterator<char>(printed), {})));
}

SnmpDaemon::SnmpDaemon(const std::string& configuration) {
    Write(folder_ / "snmpd.conf",
          fmt::format("agentaddress udp:127.0.0.1:{}\nrocommunity public\n{}\n", port(), configuration));
    Start("env MIBS= SNMP_PERSISTENT_DIR=$PWD /usr/sbin/snmpd -f -Lo -C -c snmpd.conf -p pid", "public");
}

SnmpSimulator::SnmpSimulator(const std::string& community, const std::string& records) {
    std::filesystem::create_directory(folder_ / "data");
    Write(folder_ / "data" / (community + ".snmprec"), records);
    std::filesystem::permissions(folder_, std::filesystem::perms::all);
    const char* user = geteuid() == 0 ? "--reuid nobody --regid nogroup --clear-groups" : "";  // not as root
    Start(fmt::format("{} /usr/bin/snmpsimd --logging-method=null --data-dir=data --cache-dir=cache "
                      "--agent-udpv4-endpoint=127.0.0.1:{}",
                      user, port()),
          community);
}

ScriptedDevice::ScriptedDevice(Answer answer, SentFrom from) : answer_(std::move(answer)), from_(from) {
    Socket made(0);
    port_ = BindToFreePort(made);
    socket_ = dup(made.number);
    thread_ = std::thread([this] { Serve(); });
}

ScriptedDevice::~ScriptedDevice() {
    stop_ = true;
    Socket bell(port_);
    sendto(bell.number, "", 0, 0, bell.where(), bell.size);
    thread_.join();
    close(socket_);
}

void ScriptedDevice::Serve() {
    std::string request(65536, '\0');
    const Socket another(0);
    const int sender = from_ == SentFrom::ownPort ? socket_ : another.number;
    while (true) {
        sockaddr_in address{};
        socklen_t size = sizeof address;
        auto* const peer = reinterpret_cast<sockaddr*>(&address);
        const ssize_t length = recvfrom(socket_, request.data(), request.size(), 0, peer, &size);
        if (stop_) return;
        if (length < 0) continue;
        for (const std::string& datagram :
             answer_(std::string_view(request).substr(0, static_cast<std::size_t>(length))))
            sendto(sender, datagram.data(), datagram.size(), 0, peer, size);
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

std::string MessageOf(const DeviceAnswer& answer) {
    const auto number = [](std::uint8_t value) { return Item(0x02, std::string(1, static_cast<char>(value))); };
    std::string variables;
    for (const std::string& variable : answer.variables) variables += variable;
    return Item(0x30, number(answer.version) + Item(0x04, answer.community) +
                          Item(answer.command, number(1) + number(answer.errorStatus) + number(answer.errorIndex) +
                                                   Item(0x30, variables)));
}

}  // namespace kv::test

#include "tests/support/snmp_devices.h"

#include <array>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <fstream>
#include <iterator>
#include <netinet/in.h>
#include <poll.h>
#include <pwd.h>
#include <stdexcept>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <system_error>
#include <unistd.h>

namespace kv::test {

namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

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

/// The texts with a null at the end, for execve.
std::vector<char*> Pointers(std::vector<std::string>& texts) {
    std::vector<char*> pointers;
    for (std::string& text : texts) pointers.push_back(text.data());
    pointers.push_back(nullptr);
    return pointers;
}

/// Whether one getnext is answered within 50 ms; waits as long when the port is still closed.
bool Answers(std::uint16_t port, const std::string& community) {
    const std::string name = Item(0x06, FromHex("2b 06 01"));
    const std::string getNext =
        MessageOf({.community = community, .command = 0xA1, .variables = {Item(0x30, name + Item(0x05, ""))}});
    Socket socket(port);
    std::array<char, 65536> answer;
    if (connect(socket.number, socket.where(), socket.size) == 0 &&
        send(socket.number, getNext.data(), getNext.size(), 0) > 0) {
        pollfd waiting{socket.number, POLLIN, 0};
        if (poll(&waiting, 1, 50) > 0 && recv(socket.number, answer.data(), answer.size(), 0) > 0) return true;
        if ((waiting.revents & POLLERR) != 0) std::this_thread::sleep_for(milliseconds(50));
    }
    return false;
}

/// In the child, before it becomes the device. A change of user would take back the wish to end with the parent, so it
/// comes first. Calls nothing that could wait for a lock of the parent's.
void BecomeDevice(pid_t parent, const passwd* user, const char* output, char* const* arguments,
                  char* const* variables) {
    if (user != nullptr && (setgid(user->pw_gid) != 0 || setuid(user->pw_uid) != 0)) _exit(126);
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (getppid() != parent) _exit(126);
    const int file = open(output, O_WRONLY | O_CREAT | O_APPEND, 0644);
    dup2(file, STDOUT_FILENO);
    dup2(file, STDERR_FILENO);
    execve(arguments[0], arguments, variables);
    _exit(127);
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

void SnmpProcess::Start(const DeviceProgram& program) {
    std::vector<std::string> commandLine = program.commandLine;
    std::vector<std::string> environment = program.environment;
    for (char** variable = environ; *variable != nullptr; ++variable) environment.emplace_back(*variable);
    const std::vector<char*> arguments = Pointers(commandLine);
    const std::vector<char*> variables = Pointers(environment);
    const std::string output = folder_ / "output";
    const passwd* user = program.asNobody && geteuid() == 0 ? getpwnam("nobody") : nullptr;
    if (user != nullptr && chown(folder_.c_str(), user->pw_uid, user->pw_gid) != 0) {
        throw std::system_error(errno, std::generic_category(), folder_);
    }

    const pid_t parent = getpid();
    pid_ = fork();
    if (pid_ < 0) throw std::system_error(errno, std::generic_category(), "fork");
    if (pid_ == 0) BecomeDevice(parent, user, output.c_str(), arguments.data(), variables.data());

    const auto end = steady_clock::now() + program.patience;
    while (steady_clock::now() < end && pid_ > 0) {
        if (Answers(port_, program.community)) return;
        if (waitpid(pid_, nullptr, WNOHANG) != 0) pid_ = 0;
    }
    std::ifstream printed(output);
    throw std::runtime_error(commandLine[0] + " does not answer. It has printed: " +
                             std::string(std::istreambuf_iterator<char>(printed), {}));
}

void SnmpProcess::Pause() const {
    kill(pid_, SIGSTOP);
    waitpid(pid_, nullptr, WUNTRACED);
}

void SnmpProcess::Continue() const { kill(pid_, SIGCONT); }

SnmpDaemon::SnmpDaemon(const std::string& configuration) {
    const std::string path = folder_ / "snmpd.conf";
    Write(path,
          "agentaddress udp:127.0.0.1:" + std::to_string(port()) + "\nrocommunity public\n" + configuration + "\n");
    Start({.commandLine = {"/usr/sbin/snmpd", "-f", "-Lf", folder_ / "output", "-C", "-c", path, "-p", folder_ / "pid"},
           .environment = {"MIBS=", "SNMP_PERSISTENT_DIR=" + folder_.string()},
           .community = "public"});
}

SnmpSimulator::SnmpSimulator(const std::map<std::string, std::string>& communities) {
    if (communities.empty()) throw std::invalid_argument("a simulator without communities answers nothing");
    const std::filesystem::path data = folder_ / "data";
    std::filesystem::create_directory(data);
    for (const auto& [community, records] : communities) Write(data / (community + ".snmprec"), records);
    Start({.commandLine = {"/usr/bin/snmpsimd", "--logging-method=null", "--data-dir=" + data.string(),
                           "--cache-dir=" + (folder_ / "cache").string(),
                           "--agent-udpv4-endpoint=127.0.0.1:" + std::to_string(port())},
           .community = communities.begin()->first,
           .patience = std::chrono::seconds(20),
           .asNobody = true});
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
        ++requests_;
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

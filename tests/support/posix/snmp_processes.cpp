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

#include "tests/support/snmp_devices.h"

namespace kv::test {

namespace {

constexpr std::chrono::seconds patience{20};

std::uint16_t FreePort() {
    const int number = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof address;
    auto* const where = reinterpret_cast<sockaddr*>(&address);
    const bool isBound = bind(number, where, size) == 0 && getsockname(number, where, &size) == 0;
    close(number);
    if (!isBound) throw std::runtime_error("no port to bind to");
    return ntohs(address.sin_port);
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

}  // namespace kv::test

#include <chrono>
#include <csignal>
#include <cstdlib>
#include <fmt/format.h>
#include <spawn.h>
#include <stdexcept>
#include <sys/wait.h>
#include <unistd.h>

#include "tests/support/isolation.h"
#include "tests/support/snmp_devices.h"
#include "tests/support/test_folder.h"

namespace kv::test {

namespace {

constexpr std::chrono::seconds patience{20};

}  // namespace

/// Takes the port of a device that lives for a moment.
SnmpProcess::SnmpProcess() : folder_(MakeTemporaryFolder()), port_(ScriptedDevice(nullptr).port()) {}

SnmpProcess::~SnmpProcess() {
    if (pid_ > 0) {
        kill(pid_, SIGKILL);
        waitpid(pid_, nullptr, 0);
    }
    RemoveFolder(folder_);
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
    throw std::runtime_error(commandLine + " does not answer. It has printed: " + TestFolder::Read(folder_ / "output"));
}

SnmpDaemon::SnmpDaemon(const std::string& configuration) {
    TestFolder::Write(folder_ / "snmpd.conf",
                      fmt::format("agentaddress udp:127.0.0.1:{}\nrocommunity public\n{}\n", port(), configuration));
    Start("env MIBS= SNMP_PERSISTENT_DIR=$PWD /usr/sbin/snmpd -f -Lo -C -c snmpd.conf -p pid", "public");
}

SnmpSimulator::SnmpSimulator(const std::string& community, const std::string& records) {
    TestFolder::Write(folder_ / "data" / (community + ".snmprec"), records);
    std::filesystem::permissions(folder_, std::filesystem::perms::all);
    const char* user =
        geteuid() == 0 ? "--reuid nobody --regid nogroup --clear-groups" : "";  // it refuses to run as root
    Start(fmt::format("{} /usr/bin/snmpsimd --logging-method=null --data-dir=data --cache-dir=cache "
                      "--agent-udpv4-endpoint=127.0.0.1:{}",
                      user, port()),
          community);
}

}  // namespace kv::test

#include <cstdlib>
#include <fmt/format.h>
#include <unistd.h>

#include "tests/support/linux/child_program.h"
#include "tests/support/snmp_devices.h"
#include "tests/support/test_folder.h"

namespace kv::test {

/// Takes the port of a device that lives for a moment.
SnmpProcess::SnmpProcess() : program_(std::make_unique<ChildProgram>()), port_(ScriptedDevice(nullptr).port()) {}

SnmpProcess::~SnmpProcess() = default;

const std::filesystem::path& SnmpProcess::folder() const { return program_->folder(); }

void SnmpProcess::Start(const std::string& commandLine, const std::string& community) {
    const std::string getNext =
        fmt::format("MIBS= snmpgetnext -v2c -c '{}' -t 0.05 -r 0 127.0.0.1:{} 1.3 >/dev/null 2>&1", community, port_);
    program_->Start(commandLine, [&] { return std::system(getNext.c_str()) == 0; });
}

SnmpDaemon::SnmpDaemon(const std::string& configuration) {
    TestFolder::Write(folder() / "snmpd.conf",
                      fmt::format("agentaddress udp:127.0.0.1:{}\nrocommunity public\n{}\n", port(), configuration));
    Start("env MIBS= SNMP_PERSISTENT_DIR=$PWD /usr/sbin/snmpd -f -Lo -C -c snmpd.conf -p pid", "public");
}

SnmpSimulator::SnmpSimulator(const std::string& community, const std::string& records) {
    TestFolder::Write(folder() / "data" / (community + ".snmprec"), records);
    std::filesystem::permissions(folder(), std::filesystem::perms::all);
    const char* user =
        geteuid() == 0 ? "--reuid nobody --regid nogroup --clear-groups" : "";  // it refuses to run as root
    Start(fmt::format("{} /usr/bin/snmpsimd --logging-method=null --data-dir=data --cache-dir=cache "
                      "--agent-udpv4-endpoint=127.0.0.1:{}",
                      user, port()),
          community);
}

}  // namespace kv::test

// Devices to poll: one that says what a test wants, and real agents as child processes on loopback ports of their own,
// on Linux only.
#pragma once

#include <atomic>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "platform/sockets.h"

namespace kv::test {

/// A child process that answers SNMP at 127.0.0.1; ended at the end of its object, and with the thread that made it.
class SnmpProcess {
  public:
    SnmpProcess(const SnmpProcess&) = delete;
    SnmpProcess& operator=(const SnmpProcess&) = delete;

    std::uint16_t port() const { return port_; }

  protected:
    /// A folder of its own, removed at the end, and a port that is free.
    SnmpProcess();
    ~SnmpProcess();

    /// Runs a shell's command line in the folder, and returns when a getnext under the community is answered; throws
    /// std::runtime_error with what was printed when it is not.
    void Start(const std::string& commandLine, const std::string& community);

    std::filesystem::path folder_;

  private:
    std::uint16_t port_ = 0;
    int pid_ = 0;
};

/// Debian's snmpd, with "public" as its community.
class SnmpDaemon : public SnmpProcess {
  public:
    /// configuration: further lines, such as "extend NAME PROGRAM" or "sysName x".
    explicit SnmpDaemon(const std::string& configuration = "");
};

/// Debian's snmpsimd: a community and what is found under it, as .snmprec text (OID|TAG|VALUE lines, ascending).
class SnmpSimulator : public SnmpProcess {
  public:
    SnmpSimulator(const std::string& community, const std::string& records);
};

/// Where a scripted device's datagrams come from.
enum class SentFrom { ownPort, anotherPort };

/// A socket at 127.0.0.1 with a thread behind it, which sends back what a function makes of each datagram: none, one,
/// or several.
class ScriptedDevice {
  public:
    using Answer = std::function<std::vector<std::string>(std::string_view request)>;

    explicit ScriptedDevice(Answer answer, SentFrom from = SentFrom::ownPort);
    ~ScriptedDevice();
    ScriptedDevice(const ScriptedDevice&) = delete;
    ScriptedDevice& operator=(const ScriptedDevice&) = delete;

    std::uint16_t port() const { return port_; }

  private:
    void Serve();

    const platform::SocketOperations sockets_;  // which no test replaces any more
    Answer answer_;
    platform::SocketHandle socket_;
    platform::SocketHandle another_;
    platform::SocketHandle sender_;
    std::uint16_t port_;
    std::atomic<bool> stop_{false};
    std::thread thread_;
};

/// The bytes of "30 82 00 1a ..."; blanks and line ends do not count. Throws std::invalid_argument for other texts.
std::string FromHex(std::string_view hex);

/// One BER item, its length in the shortest form.
std::string Item(std::uint8_t tag, std::string_view content);

/// A message as a device sends it, with the request number 1, in the shortest lengths. variables: whole items, as
/// Item(0x30, name + value) makes them.
struct DeviceAnswer {
    std::uint8_t version = 1;
    std::string community = "public";
    std::uint8_t command = 0xA2;
    std::uint8_t errorStatus = 0;
    std::uint8_t errorIndex = 0;
    std::vector<std::string> variables = {};
};
std::string MessageOf(const DeviceAnswer& answer);

}  // namespace kv::test

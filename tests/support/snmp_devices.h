// Devices to poll: a scripted one, and on Linux real SNMP agents as child processes on loopback ports.
#pragma once

#include <atomic>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "platform/sockets.h"

namespace kv::test {

class ChildProgram;

/// A child process that answers SNMP at 127.0.0.1. It ends with its object, and with the thread that made it.
class SnmpProcess {
  public:
    SnmpProcess(const SnmpProcess&) = delete;
    SnmpProcess& operator=(const SnmpProcess&) = delete;

    std::uint16_t port() const { return port_; }

  protected:
    /// Finds a free port.
    SnmpProcess();
    ~SnmpProcess();

    /// Runs a command line of the shell in the program's folder and waits until a getnext with the community is
    /// answered. Throws std::runtime_error with what the process printed if it does not answer.
    void Start(const std::string& commandLine, const std::string& community);

    const std::filesystem::path& folder() const;

  private:
    std::unique_ptr<ChildProgram> program_;
    std::uint16_t port_ = 0;
};

/// Debian's snmpd with the community "public".
class SnmpDaemon : public SnmpProcess {
  public:
    /// configuration: more lines, such as "extend NAME PROGRAM" or "sysName x".
    explicit SnmpDaemon(const std::string& configuration = "");
};

/// Debian's snmpsimd with one community. records: .snmprec text, lines of OID|TAG|VALUE in ascending order.
class SnmpSimulator : public SnmpProcess {
  public:
    SnmpSimulator(const std::string& community, const std::string& records);
};

/// Where a scripted device's datagrams come from.
enum class SentFrom { ownPort, anotherPort };

/// A socket at 127.0.0.1 whose thread answers each datagram with the datagrams that a function returns.
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

    const platform::SocketOperations sockets_;  // a copy: a test may replace the current ones
    Answer answer_;
    platform::SocketHandle socket_;
    platform::SocketHandle another_;
    platform::SocketHandle sender_;
    std::uint16_t port_;
    std::atomic<bool> stop_{false};
    std::thread thread_;
};

/// The bytes of "30 82 00 1a ..."; blanks and line ends are skipped. Throws std::invalid_argument for other texts.
std::string FromHex(std::string_view hex);

/// One BER item, its length in the shortest form.
std::string Item(std::uint8_t tag, std::string_view content);

/// A device's answer to the request number 1, its lengths in the shortest form. variables: whole items, made by
/// Item(0x30, name + value).
struct DeviceAnswer {
    std::uint8_t version = 1;
    std::string community = "public";
    std::uint8_t command = 0xA2;
    std::uint8_t errorStatus = 0;
    std::uint8_t errorIndex = 0;
    std::vector<std::string> variables = {};
};
std::string EncodeAnswer(const DeviceAnswer& answer);

}  // namespace kv::test

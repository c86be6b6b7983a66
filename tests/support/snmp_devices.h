// Devices to poll: real agents as child processes on loopback ports of their own, and one that says what a test wants.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <map>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

namespace kv::test {

/// How a device is started and known to be ready.
struct DeviceProgram {
    std::vector<std::string> commandLine;       // begins with a whole path
    std::vector<std::string> environment = {};  // "NAME=value", beside this process's own
    std::string community;                      // answers a getnext under it once it is ready
    std::chrono::seconds patience{10};
    bool asNobody = false;  // where this process is root; the folder then belongs to nobody, too
};

/// A child process that answers SNMP at 127.0.0.1; ended at the end of its object, and with the thread that made it.
class SnmpProcess {
  public:
    SnmpProcess(const SnmpProcess&) = delete;
    SnmpProcess& operator=(const SnmpProcess&) = delete;

    std::uint16_t port() const { return port_; }

    /// Lets the device fall silent, and go on; what has come meanwhile is then answered.
    void Pause() const;
    void Continue() const;

  protected:
    /// A folder of its own, removed at the end, and a port that is free.
    SnmpProcess();
    ~SnmpProcess();

    /// Returns when the program answers; throws std::runtime_error with what it has printed when it does not. What it
    /// prints goes to "output" in its folder.
    void Start(const DeviceProgram& program);

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

/// Debian's snmpsimd: communities and what is found under them, as .snmprec text
/// (OID|TAG|VALUE lines, ascending).
class SnmpSimulator : public SnmpProcess {
  public:
    explicit SnmpSimulator(const std::map<std::string, std::string>& communities);
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

    /// How many datagrams have come.
    int requests() const { return requests_; }

  private:
    void Serve();

    Answer answer_;
    SentFrom from_;
    int socket_ = -1;
    std::uint16_t port_ = 0;
    std::atomic<bool> stop_{false};
    std::atomic<int> requests_{0};
    std::thread thread_;
};

/// The bytes of "30 82 00 1a ..."; blanks and line ends do not count. Throws std::invalid_argument for other texts.
std::string FromHex(std::string_view hex);

/// One BER item of any length.
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

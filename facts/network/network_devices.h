// Network interfaces: counters from /proc/net/dev, facts from /sys/class/net.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace kv::facts {

/// One line of /proc/net/dev, counted since the interface came up.
struct InterfaceCounters {
    std::string name;
    std::uint64_t receivedBytes = 0;
    std::uint64_t receivedPackets = 0;
    std::uint64_t receiveErrors = 0;
    std::uint64_t receiveDropped = 0;
    std::uint64_t receivedMulticast = 0;
    std::uint64_t sentBytes = 0;
    std::uint64_t sentPackets = 0;
    std::uint64_t sendErrors = 0;
    std::uint64_t sendDropped = 0;
};

/// Malformed lines are left out.
std::vector<InterfaceCounters> ParseNetDev(std::string_view text);

/// An interface in /sys/class/net.
struct NetworkInterface {
    std::string name;
    std::uint32_t index = 0;     // the kernel's number for it
    std::uint32_t linkType = 0;  // ARPHRD_ETHER and so on
    bool isUp = false;           // switched on, whether or not it is connected
};

/// All interfaces except loopback, in the order of their indexes; absent if /sys/class/net cannot be read.
std::optional<std::vector<NetworkInterface>> ListNetworkInterfaces();

/// The device behind an interface. What is not known is empty.
struct InterfaceDevice {
    std::string driver;
    std::string place;    // the device's path below /sys/devices; empty for an interface without hardware
    std::string vendor;   // from the hardware database
    std::string product;  // from the hardware database, else the driver, else the kind of interface such as "bridge"
};

InterfaceDevice ReadInterfaceDevice(const NetworkInterface& interface);

/// The rest of the first line that begins with a key; empty when there is no such line.
std::string_view ValueAfter(std::string_view key, std::string_view text);

/// The speed of an interface in bits per second, as its driver gives it; absent when it has no speed, or is down.
std::optional<std::uint64_t> InterfaceSpeed(const std::string& name);

/// How many packets wait to be sent on each interface, by its index. One that is switched off has no queue.
using QueueLengths = std::map<std::uint32_t, std::uint32_t>;

/// The queues in the kernel's answer to RTM_GETQDISC.
QueueLengths ParseQueueLengths(std::string_view messages);

/// Those of this computer; absent if the kernel does not give them.
std::optional<QueueLengths> ReadQueueLengths();

/// The packets that wait on the interface of that name; 0 if it has no queue.
std::uint32_t QueueLengthOf(const QueueLengths& queues, const std::string& name);

}  // namespace kv::facts

// Network interfaces: counters of /proc/net/dev, facts of /sys/class/net.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace platform::wmi {

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

std::vector<InterfaceCounters> ParseNetDev(std::string_view text);

/// Bits per second of an interface as its driver tells it; none for one that has no speed or is down.
std::optional<std::uint64_t> InterfaceSpeed(const std::string& name);

}  // namespace platform::wmi

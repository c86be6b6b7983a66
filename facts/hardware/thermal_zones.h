// The thermal zones of the computer, from /sys/class/thermal.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace kv::facts {

struct ThermalZone {
    std::uint32_t number = 0;
    std::string type;                          // such as "acpitz" or "x86_pkg_temp"; several zones may have the same
    std::optional<std::int64_t> milliCelsius;  // absent when the sensor gives no value now
    unsigned passiveLimit = 100;               // percent to which passive cooling slows something down; 100: nothing is
};

/// In the order of their numbers; empty on a computer without them, absent when they cannot be read.
std::optional<std::vector<ThermalZone>> ReadThermalZones();

}  // namespace kv::facts

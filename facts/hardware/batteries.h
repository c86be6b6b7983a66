// Batteries that power the computer, from /sys/class/power_supply.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <system_error>
#include <vector>

namespace kv::facts {

/// What a battery tells. Texts are empty, and numbers absent, if it does not.
struct Battery {
    std::string name;    // the kernel's, such as "BAT0"
    std::string folder;  // where its files are
    std::string maker;
    std::string model;
    std::string technology;                       // such as "Li-ion"
    std::string status;                           // "Charging", "Discharging", "Not charging", "Full" or "Unknown"
    std::string level;                            // "Critical", "Low", "Normal", "High" or "Full"
    std::string health;                           // "Good", or what is wrong with it
    std::optional<std::uint64_t> percent;         // of a full charge
    std::optional<std::uint64_t> energy;          // microwatt-hours, now; these three from its charge if need be
    std::optional<std::uint64_t> fullEnergy;      // when it was last full
    std::optional<std::uint64_t> designEnergy;    // when it was new
    std::optional<std::uint64_t> power;           // microwatts, that flow into it or out of it; absent if none do
    std::optional<std::uint64_t> designVoltage;   // microvolts
    std::optional<std::uint64_t> secondsToEmpty;  // its own estimate while it discharges, else from its power
    std::optional<std::uint64_t> secondsToFull;   // the same while it charges
};

struct PowerSupplies {
    std::vector<Battery> batteries;  // in the order of their names, without those of attached devices such as mice
    std::optional<bool> isOnMains;   // absent when the computer has no other supply that tells
    std::error_code failure;         // set when the folder is there and cannot be read to its end
};

PowerSupplies ReadPowerSupplies(const std::string& folder = "/sys/class/power_supply");

}  // namespace kv::facts

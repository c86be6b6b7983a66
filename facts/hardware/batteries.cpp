#include "facts/hardware/batteries.h"

#include <algorithm>
#include <filesystem>

#include "facts/system_text.h"

namespace kv::facts {

namespace {

namespace fs = std::filesystem;

/// The files of one supply.
struct Supply {
    std::string folder;

    std::string text(const char* name) const { return ReadSystemLine(folder + "/" + name).value_or(""); }

    /// A magnitude: some drivers count what flows out as negative.
    std::optional<std::uint64_t> number(const char* name) const {
        const std::string whole = text(name);
        return NumberOf(whole.starts_with('-') ? std::string_view(whole).substr(1) : whole);
    }
};

std::optional<std::uint64_t> IfNotZero(std::optional<std::uint64_t> number) {
    return number && *number != 0 ? number : std::nullopt;
}

/// The file of an energy in microwatt-hours or a power in microwatts, else that of a charge in microampere-hours or a
/// current in microamperes, times a voltage in microvolts.
std::optional<std::uint64_t> EnergyIn(const Supply& supply, const char* energyName, const char* chargeName,
                                      std::optional<std::uint64_t> voltage) {
    constexpr std::uint64_t microvoltsPerVolt = 1'000'000;
    if (const std::optional<std::uint64_t> energy = supply.number(energyName)) return energy;
    const std::optional<std::uint64_t> charge = supply.number(chargeName);
    return charge && voltage ? std::optional(*charge * *voltage / microvoltsPerVolt) : std::nullopt;
}

std::optional<std::uint64_t> SecondsFor(std::optional<std::uint64_t> energy, std::optional<std::uint64_t> power) {
    constexpr std::uint64_t secondsPerHour = 3600;
    return energy && power ? std::optional(*energy * secondsPerHour / *power) : std::nullopt;
}

void AddTimes(const Supply& supply, Battery& battery) {
    const std::optional<std::uint64_t> missing =
        battery.energy && battery.fullEnergy
            ? std::optional(*battery.fullEnergy - std::min(*battery.energy, *battery.fullEnergy))
            : std::nullopt;
    if (battery.status == "Discharging") {
        battery.secondsToEmpty = IfNotZero(supply.number("time_to_empty_now"));
        if (!battery.secondsToEmpty) battery.secondsToEmpty = SecondsFor(battery.energy, battery.power);
    } else if (battery.status == "Charging") {
        battery.secondsToFull = IfNotZero(supply.number("time_to_full_now"));
        if (!battery.secondsToFull) battery.secondsToFull = SecondsFor(missing, battery.power);
    }
}

std::optional<std::uint64_t> PercentOf(const Supply& supply, const Battery& battery) {
    constexpr std::uint64_t whole = 100;
    if (const std::optional<std::uint64_t> percent = supply.number("capacity")) return percent;
    const bool isKnown = battery.energy && IfNotZero(battery.fullEnergy);
    return isKnown ? std::optional(std::min(*battery.energy * whole / *battery.fullEnergy, whole)) : std::nullopt;
}

Battery ReadBattery(const Supply& supply, std::string name) {
    Battery battery;
    battery.name = std::move(name);
    battery.folder = supply.folder;
    battery.maker = supply.text("manufacturer");
    battery.model = supply.text("model_name");
    battery.technology = supply.text("technology");
    battery.status = supply.text("status");
    battery.level = supply.text("capacity_level");
    battery.health = supply.text("health");
    battery.designVoltage = IfNotZero(supply.number("voltage_min_design"));
    const std::optional<std::uint64_t> voltage =
        battery.designVoltage ? battery.designVoltage : IfNotZero(supply.number("voltage_now"));
    battery.energy = EnergyIn(supply, "energy_now", "charge_now", voltage);
    battery.fullEnergy = EnergyIn(supply, "energy_full", "charge_full", voltage);
    battery.designEnergy = IfNotZero(EnergyIn(supply, "energy_full_design", "charge_full_design", voltage));
    battery.power = IfNotZero(EnergyIn(supply, "power_now", "current_now", voltage));
    battery.percent = PercentOf(supply, battery);
    AddTimes(supply, battery);
    return battery;
}

void AddSupply(const fs::path& folder, PowerSupplies& supplies) {
    const Supply supply{folder.string()};
    const std::string type = supply.text("type");
    if (type.empty() || supply.text("scope") == "Device") return;
    if (type == "Battery") {
        const bool isThere = supply.number("present").value_or(1) != 0;  // a bay may be empty
        if (isThere) supplies.batteries.push_back(ReadBattery(supply, folder.filename().string()));
    } else if (const std::optional<std::uint64_t> online = supply.number("online")) {
        supplies.isOnMains = supplies.isOnMains.value_or(false) || *online != 0;
    }
}

}  // namespace

PowerSupplies ReadPowerSupplies(const std::string& folder) {
    PowerSupplies supplies;
    fs::directory_iterator at(folder, supplies.failure);
    for (const fs::directory_iterator end; !supplies.failure && at != end; at.increment(supplies.failure))
        AddSupply(at->path(), supplies);
    if (supplies.failure == std::errc::no_such_file_or_directory) supplies.failure.clear();
    std::ranges::sort(supplies.batteries, {}, &Battery::name);
    return supplies;
}

}  // namespace kv::facts

#include "wql/classes/hardware/batteries.h"

#include <fmt/format.h>

#include "facts/hardware/batteries.h"
#include "facts/hardware/devices.h"
#include "facts/network/host_names.h"
#include "facts/system_text.h"
#include "wql/class_tree.h"

namespace kv::wql {

namespace {

using enum CimType;

struct Row {
    facts::Battery battery;
    std::optional<bool> isOnMains;
    std::u16string host;
};

bool IsDischarging(const Row& row) { return row.battery.status == "Discharging"; }

/// Of the numbers for a state the one that goes with the level: critical, low, high, else the plain one.
struct StatusNumbers {
    std::uint16_t plain, critical, low, high;
};

std::uint16_t NumberFor(std::string_view level, const StatusNumbers& numbers) {
    if (level == "Critical") return numbers.critical;
    if (level == "Low") return numbers.low;
    return level == "High" ? numbers.high : numbers.plain;
}

std::uint16_t BatteryStatusOf(const Row& row) {
    constexpr StatusNumbers discharging = {1, 5, 4, 1};
    constexpr StatusNumbers charging = {6, 9, 8, 7};
    constexpr std::uint16_t full = 3;
    constexpr std::uint16_t onMains = 2;
    constexpr std::uint16_t undefined = 10;
    const std::string& status = row.battery.status;
    if (status == "Discharging") return NumberFor(row.battery.level, discharging);
    if (status == "Charging") return NumberFor(row.battery.level, charging);
    if (status == "Full") return full;
    return status == "Not charging" || row.isOnMains.value_or(false) ? onMains : undefined;
}

std::uint16_t ChemistryOf(const facts::Battery& battery) {
    constexpr struct {
        std::string_view technology;
        std::uint16_t number;
    } kinds[] = {
        {"NiCd", 4}, {"NiMH", 5}, {"Li-ion", 6}, {"LiFe", 6}, {"LiMn", 6}, {"Li-poly", 8},
    };
    constexpr std::uint16_t unknown = 2;
    for (const auto& kind : kinds) {
        if (kind.technology == battery.technology) return kind.number;
    }
    return unknown;
}

std::u16string_view StatusOf(const facts::Battery& battery) {
    if (battery.health == "Dead" || battery.health == "Unspecified failure") return u"Error";
    return battery.health.empty() || battery.health == "Good" || battery.health == "Unknown" ? u"OK" : u"Degraded";
}

/// Minutes; a very large number, the same as on Windows, while it does not discharge or does not tell.
std::uint64_t RunTimeOf(const facts::Battery& battery) {
    constexpr std::uint64_t unlimited = 71582788;
    constexpr std::uint64_t secondsPerMinute = 60;
    return battery.secondsToEmpty ? *battery.secondsToEmpty / secondsPerMinute : unlimited;
}

/// In thousands of the unit.
std::optional<std::uint64_t> ThousandsOf(std::optional<std::uint64_t> number) {
    constexpr std::uint64_t thousand = 1000;
    return number ? std::optional(*number / thousand) : std::nullopt;
}

std::optional<std::uint64_t> MinutesOf(std::optional<std::uint64_t> seconds) {
    constexpr std::uint64_t secondsPerMinute = 60;
    return seconds ? std::optional(*seconds / secondsPerMinute) : std::nullopt;
}

std::string NameOf(const Row& row) { return row.battery.model.empty() ? row.battery.name : row.battery.model; }

// clang-format off
constexpr PropertyInfo properties[] = {
    {u"Availability", uint16, 0, "3: it is there", [](const Row&) { return 3; }},
    {u"BatteryRechargeTime", uint32},
    {u"BatteryStatus", uint16, 0, "1 discharging, 4 and low, 5 and critical; 2 on mains, 3 full; 6 charging, 7 and high, 8 and low, 9 and critical; 10 unknown",
        [](const Row& row) { return BatteryStatusOf(row); }},
    {u"Caption", string, 0, "the same for every battery", [](const Row&) { return u"Internal Battery"; }},
    {u"Chemistry", uint16, 0, "4 NiCd, 5 NiMH, 6 lithium-ion, 8 lithium polymer, 2 unknown", [](const Row& row) { return ChemistryOf(row.battery); }},
    {u"ConfigManagerErrorCode", uint32, 0, "0: it works", [](const Row&) { return 0; }},
    {u"ConfigManagerUserConfig", boolean, 0, "always FALSE: nobody sets up its resources", [](const Row&) { return false; }},
    {u"CreationClassName", string, 0, "this class", [](const Row&) { return u"Win32_Battery"; }},
    {u"Description", string, 0, "the same for every battery", [](const Row&) { return u"Internal Battery"; }},
    {u"DesignCapacity", uint32, 0, "milliwatt-hours when it was new", [](const Row& row) { return ThousandsOf(row.battery.designEnergy); }},
    {u"DesignVoltage", uint64, 0, "millivolts, voltage_min_design", [](const Row& row) { return ThousandsOf(row.battery.designVoltage); }},
    {u"DeviceID", string, 0, "its name in /sys/class/power_supply, such as BAT0", [](const Row& row) { return row.battery.name; }},
    {u"ErrorCleared", boolean},
    {u"ErrorDescription", string},
    {u"EstimatedChargeRemaining", uint16, 0, "percent", [](const Row& row) { return row.battery.percent; }},
    {u"EstimatedRunTime", uint32, 0, "minutes; 71582788 while it does not discharge, or does not tell", [](const Row& row) { return RunTimeOf(row.battery); }},
    {u"ExpectedBatteryLife", uint32},
    {u"ExpectedLife", uint32},
    {u"FullChargeCapacity", uint32, 0, "milliwatt-hours when it was last full", [](const Row& row) { return ThousandsOf(row.battery.fullEnergy); }},
    {u"InstallDate", datetime},
    {u"LastErrorCode", uint32},
    {u"MaxRechargeTime", uint32},
    {u"Name", string, 0, "its model, else as DeviceID", [](const Row& row) { return NameOf(row); }},
    {u"PNPDeviceID", string, 0, "the hardware's path below /sys/devices", [](const Row& row) { return facts::KnownText(facts::PlaceOfDevice(row.battery.folder + "/device")); }},
    {u"PowerManagementCapabilities", ArrayOf(uint16)},
    {u"PowerManagementSupported", boolean, 0, "always FALSE: it cannot be put to sleep", [](const Row&) { return false; }},
    {u"SmartBatteryVersion", string},
    {u"Status", string, 0, "OK; Degraded or Error if its health is not good", [](const Row& row) { return StatusOf(row.battery); }},
    {u"StatusInfo", uint16},
    {u"SystemCreationClassName", string, 0, "the computer's class", [](const Row&) { return u"Win32_ComputerSystem"; }},
    {u"SystemName", string, 0, "the computer's name", [](const Row& row) { return row.host; }},
    {u"TimeOnBattery", uint32, 0, "seconds, 0 on mains; else unknown", [](const Row& row) { return row.isOnMains.value_or(!IsDischarging(row)) ? std::optional(0) : std::nullopt; }},
    {u"TimeToFullCharge", uint32, 0, "minutes, while it is charging", [](const Row& row) { return MinutesOf(row.battery.secondsToFull); }},
};
// clang-format on

WmiStatus GatherOfThisComputer(const Gathering& gathering) {
    return GatherBatteries(gathering, "/sys/class/power_supply");
}

constexpr ClassInfo classes[] = {
    {u"Win32_Battery", u"CIM_Battery", properties, GatherOfThisComputer, u"DeviceID",
     "batteries that power the computer: charge, state, time left"},
};

const ClassFamily family([] { return std::span<const ClassInfo>(classes); });

}  // namespace

WmiStatus GatherBatteries(const Gathering& gathering, const std::string& folder) {
    facts::PowerSupplies supplies = facts::ReadPowerSupplies(folder);
    Row row{.battery = {}, .isOnMains = supplies.isOnMains, .host = facts::HostName()};
    for (facts::Battery& battery : supplies.batteries) {
        row.battery = std::move(battery);
        if (!gathering.row(&row)) break;
    }
    if (!supplies.failure) return wmi_status::ok;
    gathering.notice(fmt::format("Reading {} failed: {}", folder, supplies.failure.message()));
    return wmi_status::providerFailure;
}

}  // namespace kv::wql

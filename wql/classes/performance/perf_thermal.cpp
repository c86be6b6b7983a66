// Counters_ThermalZoneInformation, from /sys/class/thermal. Zones have the names of their types; the second of a type
// is "acpitz#1".
#include "facts/hardware/thermal_zones.h"
#include "facts/system_text.h"
#include "wql/class_tree.h"
#include "wql/classes/failures.h"
#include "wql/classes/performance/perf_class.h"

namespace kv::wql {

namespace {

using enum CimType;
using enum CounterKind;

using Row = facts::ThermalZone;

constexpr std::int64_t zeroCelsius = 273'150;  // thousandths of a kelvin

/// In units of so many thousandths of a kelvin, rounded; absent below absolute zero, which a broken sensor may give.
std::optional<std::uint64_t> KelvinIn(const Row& row, std::int64_t unit) {
    if (!row.milliCelsius || *row.milliCelsius < -zeroCelsius) return std::nullopt;
    return static_cast<std::uint64_t>((*row.milliCelsius + zeroCelsius + unit / 2) / unit);
}

// clang-format off
constexpr CounterInfo counters[] = {
    {u"HighPrecisionTemperature", uint32, level, 0, "tenths of a kelvin", [](const Row& row) { return KelvinIn(row, 100); }},
    {u"PercentPassiveLimit", uint32, level, 0, "percent to which the zone's passive cooling slows parts down; 100: not at all", [](const Row& row) { return row.passiveLimit; }},
    {u"Temperature", uint32, level, 0, "kelvin", [](const Row& row) { return KelvinIn(row, 1000); }},
    {u"ThrottleReasons", uint32, value, 0, "1 if passive cooling slows something down, else 0", [](const Row& row) { return row.passiveLimit < 100 ? 1 : 0; }},
};
// clang-format on

WmiStatus ReadZones(const Gathering& gathering, PerfSampling& sampling) {
    const std::optional<std::vector<Row>> zones = facts::ReadThermalZones();
    if (!zones) return FailedFile("/sys/class/thermal", "Thermal zones", gathering);
    const std::uint64_t now = TimeSinceStart();
    std::unordered_map<std::string, unsigned> counts;  // of each type so far
    for (const Row& zone : *zones) {
        const unsigned earlier = counts[zone.type]++;
        PerfObject object;
        object.name = earlier == 0 ? zone.type : zone.type + '#' + std::to_string(earlier);
        object.key = std::to_string(zone.number);
        sampling.Add(std::move(object), &zone, now);
    }
    return wmi_status::ok;
}

constexpr PerfClass zones{
    .name = u"Counters_ThermalZoneInformation", .meaning = "temperatures", .counters = counters, .read = ReadZones};

const ClassFamily family(DeclarePerfClasses<zones>);

}  // namespace

}  // namespace kv::wql

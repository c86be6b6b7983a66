#include "facts/hardware/thermal_zones.h"

#include <algorithm>
#include <charconv>
#include <filesystem>

#include "facts/system_text.h"

namespace kv::facts {

namespace {

namespace fs = std::filesystem;

constexpr unsigned wholePercent = 100;

/// The number after a prefix; absent when the text is anything else.
std::optional<std::uint64_t> NumberAfter(std::string_view prefix, std::string_view text) {
    return text.starts_with(prefix) ? NumberOf(text.substr(prefix.size())) : std::nullopt;
}

std::optional<std::int64_t> ReadSignedNumber(const std::string& path) {
    const std::string text = ReadSystemLine(path).value_or("");
    std::int64_t number = 0;
    const auto [end, failure] = std::from_chars(text.data(), text.data() + text.size(), number);
    return failure == std::errc() && end == text.data() + text.size() ? std::optional(number) : std::nullopt;
}

/// What a cooling device leaves of 100 percent, if it cools by slowing something down: it is bound to a passive trip
/// point then. A fan is bound to an active one.
std::optional<unsigned> LimitOf(const std::string& zone, const std::string& device) {
    const std::string trip = ReadSystemLine(zone + device + "_trip_point").value_or("");
    if (ReadSystemLine(zone + "trip_point_" + trip + "_type") != "passive") return std::nullopt;
    const std::optional<std::uint64_t> state = ReadSystemNumber(zone + device + "/cur_state");
    const std::optional<std::uint64_t> highest = ReadSystemNumber(zone + device + "/max_state");
    if (!state || !highest || *highest == 0) return std::nullopt;
    const std::uint64_t taken = (std::min(*state, *highest) * wholePercent + *highest - 1) / *highest;  // rounded up
    return static_cast<unsigned>(wholePercent - taken);
}

ThermalZone ReadZone(std::uint32_t number, const std::string& folder) {
    ThermalZone zone;
    zone.number = number;
    zone.type = ReadSystemLine(folder + "type").value_or("");
    zone.milliCelsius = ReadSignedNumber(folder + "temp");
    std::error_code gone;  // the zone may go at any time
    for (fs::directory_iterator at(folder, gone), end; !gone && at != end; at.increment(gone)) {
        const std::string name = at->path().filename().string();
        if (!NumberAfter("cdev", name)) continue;
        zone.passiveLimit = std::min(zone.passiveLimit, LimitOf(folder, name).value_or(wholePercent));
    }
    return zone;
}

}  // namespace

std::optional<std::vector<ThermalZone>> ReadThermalZones() {
    const std::string root = "/sys/class/thermal/";
    std::vector<ThermalZone> zones;
    std::error_code failure;
    for (fs::directory_iterator at(root, failure), end; !failure && at != end; at.increment(failure)) {
        const std::string name = at->path().filename().string();
        const std::optional<std::uint64_t> number = NumberAfter("thermal_zone", name);
        if (number) zones.push_back(ReadZone(static_cast<std::uint32_t>(*number), root + name + '/'));
    }
    if (failure && failure != std::errc::no_such_file_or_directory) return std::nullopt;
    std::ranges::sort(zones, {}, &ThermalZone::number);
    return zones;
}

}  // namespace kv::facts

#include "facts/hardware/computer_facts.h"

#include <algorithm>
#include <chrono>
#include <fmt/format.h>

#include "facts/system_text.h"
#include "platform/utf.h"

namespace kv::facts {

std::u16string_view BootupStateOf(std::string_view commandLine) {
    constexpr std::string_view rescueWords[] = {
        "single",
        "s",
        "S",
        "1",
        "rescue",
        "emergency",
        "-b",
        "systemd.unit=rescue.target",
        "systemd.unit=emergency.target",
    };
    commandLine = Trimmed(commandLine);
    for (std::string_view word = TakeField(commandLine); !word.empty(); word = TakeField(commandLine)) {
        if (std::ranges::find(rescueWords, word) != std::end(rescueWords)) return u"Fail-safe boot";
    }
    return u"Normal boot";
}

std::uint16_t SystemTypeOfChassis(std::uint64_t chassis) {
    constexpr struct {
        std::uint64_t chassis;
        std::uint16_t type;
    } kinds[] = {
        {3, 1},  {4, 1},  {5, 1},  {6, 1},  {7, 1},  {13, 1}, {15, 1}, {16, 1}, {24, 1}, {35, 1}, {36, 1},  // desktops
        {8, 2},  {9, 2},  {10, 2}, {11, 2}, {14, 2}, {30, 2}, {31, 2}, {32, 2},  // to be carried
        {17, 4}, {23, 4}, {25, 4}, {28, 4}, {29, 4},                             // in racks
    };
    for (const auto& kind : kinds) {
        if (kind.chassis == chassis) return kind.type;
    }
    return 0;
}

std::uint16_t ExtendedSystemTypeOfChassis(std::uint64_t chassis) {
    constexpr std::uint64_t tablet = 30;
    constexpr std::uint16_t slate = 8;
    return chassis == tablet ? slate : SystemTypeOfChassis(chassis);
}

bool IsVirtualMachine(std::string_view vendor, std::string_view model) {
    constexpr std::string_view vendors[] = {"QEMU", "VMware", "Xen", "Parallels", "innotek", "Bochs"};
    constexpr std::string_view models[] = {
        "Virtual Machine", "KVM", "Google Compute Engine", "OpenStack", "VirtualBox", "Apple Virtualization",
    };
    if (vendor == "Amazon EC2") return !model.ends_with(".metal");
    return std::ranges::any_of(vendors, [&](std::string_view start) { return vendor.starts_with(start); }) ||
           std::ranges::any_of(models, [&](std::string_view start) { return model.starts_with(start); });
}

std::optional<std::u16string> FirmwareDate(std::string_view text) {
    constexpr std::size_t length = 10;  // of "mm/dd/yyyy"
    constexpr std::size_t dayAt = 3;
    constexpr std::size_t yearAt = 6;
    if (text.size() != length || text[dayAt - 1] != '/' || text[yearAt - 1] != '/') return std::nullopt;
    const auto number = [&](std::size_t at, std::size_t count) { return NumberOf(text.substr(at, count)).value_or(0); };
    const std::chrono::year_month_day date(std::chrono::year(static_cast<int>(number(yearAt, 4))),
                                           std::chrono::month(static_cast<unsigned>(number(0, 2))),
                                           std::chrono::day(static_cast<unsigned>(number(dayAt, 2))));
    if (!date.ok()) return std::nullopt;
    return platform::WideFromUtf8(
        fmt::format("{:04}{:02}{:02}000000.000000+000", number(yearAt, 4), number(0, 2), number(dayAt, 2)));
}

std::optional<VersionPair> VersionPairOf(std::string_view text) {
    const std::size_t point = std::min(text.find('.'), text.size());
    const std::optional<std::uint64_t> major = NumberOf(text.substr(0, point));
    const std::optional<std::uint64_t> minor = NumberOf(text.substr(std::min(point + 1, text.size())));
    return major && minor ? std::optional(VersionPair{*major, *minor}) : std::nullopt;
}

std::optional<VersionPair> SmbiosVersionOf(std::string_view entryPoint) {
    const bool isNew = entryPoint.starts_with("_SM3_");
    const std::size_t at = isNew ? 7 : 6;
    if ((!isNew && !entryPoint.starts_with("_SM_")) || entryPoint.size() < at + 2) return std::nullopt;
    return VersionPair{static_cast<unsigned char>(entryPoint[at]), static_cast<unsigned char>(entryPoint[at + 1])};
}

}  // namespace kv::facts

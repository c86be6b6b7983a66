// Win32_PageFileUsage: the swap devices and files in use. Win32_PageFileSetting: those that /etc/fstab sets up. The
// kernel does not keep the most that has been in use.
#include <set>

#include "facts/storage/swaps.h"
#include "wql/class_tree.h"
#include "wql/classes/failures.h"
#include "wql/classes/storage/storage_sources.h"

namespace kv::wql {

namespace {

using enum CimType;

constexpr std::uint64_t kilobytesPerMegabyte = 1024;
constexpr std::uint64_t bytesPerMegabyte = 1024 * kilobytesPerMegabyte;

/// In whole megabytes, rounded: the page that describes a swap does not make it a megabyte smaller.
std::uint64_t Megabytes(std::uint64_t amount, std::uint64_t perMegabyte) {
    return (amount + perMegabyte / 2) / perMegabyte;
}

struct Setting {
    std::string path;
    std::optional<std::uint64_t> size;  // bytes
};

std::optional<std::uint64_t> MegabytesIn(const Setting& setting) {
    return setting.size ? std::optional(Megabytes(*setting.size, bytesPerMegabyte)) : std::nullopt;
}

constexpr auto pathIn = [](const facts::Swap& swap) { return swap.path; };
constexpr auto settingPathIn = [](const Setting& setting) { return setting.path; };
constexpr auto settingSizeIn = [](const Setting& setting) { return MegabytesIn(setting); };

// clang-format off
constexpr PropertyInfo usageProperties[] = {
    {u"AllocatedBaseSize", uint32, 0, "MB, Size of /proc/swaps", [](const facts::Swap& swap) { return Megabytes(swap.size, kilobytesPerMegabyte); }},
    {u"Caption", string, 0, "as Name", pathIn},
    {u"CurrentUsage", uint32, 0, "MB, Used of /proc/swaps", [](const facts::Swap& swap) { return Megabytes(swap.used, kilobytesPerMegabyte); }},
    {u"Description", string, 0, "as Name", pathIn},
    {u"InstallDate", datetime},
    {u"Name", string, 0, "the device or file, such as /dev/sda2 or /swapfile", pathIn},
    {u"PeakUsage", uint32},
    {u"Status", string, 0, "always OK, because it is in use", [](const facts::Swap&) { return u"OK"; }},
    {u"TempPageFile", boolean, 0, "always FALSE: Linux makes no swap of its own accord", [](const facts::Swap&) { return false; }},
};

constexpr PropertyInfo settingProperties[] = {
    {u"Caption", string, 0, "as Name", settingPathIn},
    {u"Description", string, 0, "as Name", settingPathIn},
    {u"InitialSize", uint32, 0, "MB, of the device or file, which does not grow", settingSizeIn},
    {u"MaximumSize", uint32, 0, "MB, of the device or file, which does not grow", settingSizeIn},
    {u"Name", string, 0, "the device or file of a line of /etc/fstab, such as /dev/sda2 or /swapfile", settingPathIn},
    {u"SettingID", string, 0, "as Name", settingPathIn},
};
// clang-format on

constexpr ClassInfo classes[] = {
    {u"Win32_PageFileSetting", u"CIM_Setting", settingProperties,
     [](const Gathering& gathering) { return GatherPageFileSettings(gathering, {}); }, u"Name",
     "swap that /etc/fstab sets up"},
    {u"Win32_PageFileUsage", u"CIM_LogicalElement", usageProperties,
     [](const Gathering& gathering) { return GatherPageFiles(gathering, {}); }, u"Name",
     "swap devices and files in use"},
};

const ClassFamily family([] { return std::span<const ClassInfo>(classes); });

}  // namespace

WmiStatus GatherPageFiles(const Gathering& gathering, const std::string& root) {
    const std::optional<std::vector<facts::Swap>> swaps = facts::ReadSwaps(root);
    if (!swaps) return FailedFile(root + "/proc/swaps", "Page files", gathering);
    for (const facts::Swap& swap : *swaps) {
        if (!gathering.row(&swap)) break;
    }
    return wmi_status::ok;
}

WmiStatus GatherPageFileSettings(const Gathering& gathering, const std::string& root) {
    const std::optional<std::vector<facts::FstabEntry>> entries = facts::ReadFstab(root);
    if (!entries) return FailedFile(root + "/etc/fstab", "Page files", gathering);
    std::set<std::string> paths;  // so far; more than one line may name a device
    for (const facts::FstabEntry& entry : *entries) {
        if (entry.fileSystem != "swap") continue;
        Setting setting;
        setting.path = facts::DevicePathOf(entry.source, root);
        if (!paths.insert(setting.path).second) continue;
        setting.size = facts::SizeOfDeviceOrFile(setting.path, root);
        if (!gathering.row(&setting)) break;
    }
    return wmi_status::ok;
}

}  // namespace kv::wql

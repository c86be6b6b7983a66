#include "facts/storage/drive_files.h"

#include <algorithm>
#include <initializer_list>

#include "facts/system_text.h"

namespace kv::facts {

namespace {

/// The text of the first of these files that has one; empty if none has.
std::string FirstLineOf(const std::string& folder, std::initializer_list<const char*> files) {
    for (const char* file : files) {
        if (const std::optional<std::string> line = ReadSystemLine(folder + file)) return *line;
    }
    return {};
}

}  // namespace

std::string VendorOfDrive(const std::string& folder) {
    const std::string vendor = FirstLineOf(folder, {"/device/vendor"});
    return vendor.starts_with("0x") || vendor == "ATA" ? std::string() : vendor;
}

std::string ModelOfDrive(const std::string& folder) { return FirstLineOf(folder, {"/device/model", "/device/name"}); }

std::string FirmwareOfDrive(const std::string& folder) {
    return FirstLineOf(folder, {"/device/firmware_rev", "/device/rev", "/device/fwrev"});
}

std::string SerialOfDrive(const std::string& folder) {
    constexpr std::size_t pageHeader = 4;
    std::string serial = FirstLineOf(folder, {"/serial", "/device/serial"});
    if (!serial.empty()) return serial;
    const std::string page = platform::ReadSystemFile(folder + "/device/vpd_pg80").value_or(std::string());
    return page.size() <= pageHeader ? std::string() : std::string(Trimmed(std::string_view(page).substr(pageHeader)));
}

std::optional<std::array<std::uint32_t, 4>> ScsiAddressIn(std::string_view place) {
    std::array<std::uint32_t, 4> address{};
    std::string_view rest = place.substr(place.rfind('/') + 1);
    for (std::uint32_t& number : address) {
        const std::size_t end = std::min(rest.find(':'), rest.size());
        const std::optional<std::uint64_t> figure = NumberOf(rest.substr(0, end));
        if (!figure) return std::nullopt;
        number = static_cast<std::uint32_t>(*figure);
        rest.remove_prefix(std::min(end + 1, rest.size()));
    }
    return rest.empty() ? std::optional(address) : std::nullopt;
}

bool IsDriveWorking(const std::string& folder) {
    const std::string state = FirstLineOf(folder, {"/device/state"});
    return state.empty() || state == "running" || state == "live";
}

std::string ReadUdevData(const std::string& device, const std::string& root) {
    return platform::ReadSystemFile(root + "/run/udev/data/b" + device).value_or(std::string());
}

}  // namespace kv::facts

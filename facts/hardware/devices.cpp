#include "facts/hardware/devices.h"

#include <filesystem>
#include <fmt/format.h>

#include "facts/system_text.h"

namespace kv::facts {

namespace {

namespace fs = std::filesystem;

/// Takes the name behind a number off a line such as "8086  Intel Corporation"; empty if it has another number.
std::string_view NameBehind(std::string_view number, std::string_view line) {
    return line.starts_with(number) ? Trimmed(line.substr(number.size())) : std::string_view();
}

}  // namespace

std::string PlaceOfDevice(const std::string& link) {
    constexpr std::string_view devices = "/sys/devices/";
    std::error_code failure;
    const std::string path = fs::canonical(link, failure).string();
    const std::size_t at = path.find(devices);
    return at == std::string::npos ? std::string() : path.substr(at + devices.size());
}

std::string DriverOf(const std::string& folder) {
    std::error_code failure;
    return fs::read_symlink(folder + "/driver", failure).filename().string();
}

DeviceNames NamesInPciIds(std::string_view text, std::uint16_t vendor, std::uint16_t product) {
    const std::string vendorNumber = fmt::format("{:04x}  ", vendor);
    const std::string productNumber = fmt::format("\t{:04x}  ", product);
    DeviceNames names;
    for (std::string_view line; TakeLine(text, line);) {
        if (line.empty() || line.starts_with('#') || line.starts_with("\t\t")) continue;
        if (names.vendor.empty()) {
            names.vendor = NameBehind(vendorNumber, line);
            continue;
        }
        if (!line.starts_with('\t')) break;  // the next vendor
        names.product = NameBehind(productNumber, line);
        if (!names.product.empty()) break;
    }
    return names;
}

std::string ReadPciIds() {
    constexpr const char* places[] = {"/usr/share/misc/pci.ids", "/usr/share/hwdata/pci.ids"};
    for (const char* place : places) {
        if (std::optional<std::string> text = platform::ReadSystemFile(place)) return std::move(*text);
    }
    return {};
}

std::optional<std::string> UdevFact(std::string_view data, std::string_view key) {
    constexpr std::string_view mark = "E:";
    for (std::string_view line; TakeLine(data, line);) {
        if (!line.starts_with(mark)) continue;
        line.remove_prefix(mark.size());
        if (line.starts_with(key) && line.substr(key.size(), 1) == "=") return std::string(line.substr(key.size() + 1));
    }
    return std::nullopt;
}

DeviceNames NamesInUdev(std::string_view data) {
    return {UdevFact(data, "ID_VENDOR_FROM_DATABASE").value_or(""),
            UdevFact(data, "ID_MODEL_FROM_DATABASE").value_or("")};
}

}  // namespace kv::facts

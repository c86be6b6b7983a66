// Devices in /sys: where they are, what drives them, and what udev and the list of PCI's names (pci.ids) call them.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace kv::facts {

/// The path of a device below /sys/devices, to which a link leads; empty if it does not lead there.
std::string PlaceOfDevice(const std::string& link);

/// The name of a device's driver; empty when it does not have one. folder: the device's.
std::string DriverOf(const std::string& folder);

/// Names of a maker and of what it made; empty when they are not known.
struct DeviceNames {
    std::string vendor;
    std::string product;
};

/// The names that a text of pci.ids has for two numbers.
DeviceNames NamesInPciIds(std::string_view text, std::uint16_t vendor, std::uint16_t product);

/// The text of pci.ids; empty when the list is not installed.
std::string ReadPciIds();

/// A fact in what the device manager (udev) has found out about a device, a text with a line "E:KEY=value" for each,
/// such as "ID_FS_LABEL"; absent when it is not known.
std::optional<std::string> UdevFact(std::string_view data, std::string_view key);

/// The names in such a text, which come from udev's own database.
DeviceNames NamesInUdev(std::string_view data);

}  // namespace kv::facts

// Devices in /sys: where they are, what drives them, and what the list of PCI's names (pci.ids) calls them.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace kv::facts {

/// The path below /sys/devices of a device's own folder; empty for another folder.
std::string PlaceBelowDevices(const std::string& folder);

/// The same of the device behind a folder of /sys/class; empty when there is no device.
std::string DevicePlaceOf(const std::string& folder);

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

/// The names that the device manager (udev) has found in its own database. address: such as "0000:00:02.0".
DeviceNames ReadPciNamesOfUdev(const std::string& address);

}  // namespace kv::facts

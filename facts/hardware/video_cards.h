// What drives the computer's displays: PCI devices, and the cards of the kernel's graphics system (DRM) that are not on
// that bus.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <system_error>
#include <vector>

namespace kv::facts {

struct VideoMode {
    std::uint32_t width = 0;  // pixels
    std::uint32_t height = 0;
    bool isInterlaced = false;
};

/// A mode as the kernel writes it, such as "1920x1080" or "1920x1080i"; absent for another text.
std::optional<VideoMode> ParseVideoMode(std::string_view text);

struct VideoCard {
    std::string name;                     // of the device, such as "0000:00:02.0"
    std::string folder;                   // of the device
    std::string driver;                   // empty if no driver has taken the device
    std::string moduleVersion;            // of the module that the driver is in; empty if it comes with the kernel
    std::optional<std::uint16_t> vendor;  // these two are PCI's numbers
    std::optional<std::uint16_t> product;
    std::uint32_t pciClass = 0;                 // 0x030000 is a VGA controller; 0 for what is not on the bus
    bool isFirmwares = false;                   // the firmware started it, and the console needs no driver
    std::optional<VideoMode> mode;              // that the first display that is on prefers
    std::optional<std::uint64_t> bitsPerPixel;  // of the console
    std::optional<std::uint64_t> memory;        // bytes of its own, if its driver tells
};

struct VideoCards {
    std::vector<VideoCard> cards;  // those on the bus first, in the order of their names
    std::error_code failure;       // set when a folder is there and cannot be read to its end
};

/// root: where the kernel's tree is.
VideoCards ReadVideoCards(const std::string& root = "/sys");

}  // namespace kv::facts

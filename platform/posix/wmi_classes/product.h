// How the maker names the computer: of the firmware's tables, or of the device tree that many computers have instead.
#pragma once

#include <optional>
#include <string>

namespace platform::wmi {

/// UTF-8. Serial number and UUID are for the superuser only.
struct Product {
    std::optional<std::string> vendor;
    std::optional<std::string> name;
    std::optional<std::string> version;
    std::optional<std::string> serialNumber;
    std::optional<std::string> uuid;  // in capital letters
    std::optional<std::string> stockNumber;
    std::optional<std::string> family;

    /// False on a virtual machine that tells nothing.
    bool isKnown() const { return vendor || name || serialNumber; }
};

Product ReadProduct();

}  // namespace platform::wmi

// How the maker names the computer: in the firmware's tables, or in the device tree that many computers have instead.
// All texts are UTF-8. They are absent when the maker tells nothing, as on some virtual machines.
#pragma once

#include <optional>
#include <string>

namespace kv::facts {

std::optional<std::string> ReadVendor();

std::optional<std::string> ReadModel();

/// For the superuser only, except of a device tree.
std::optional<std::string> ReadSerialNumber();

/// In capital letters; for the superuser only.
std::optional<std::string> ReadUuid();

}  // namespace kv::facts

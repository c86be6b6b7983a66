// What the maker calls the computer: in the firmware's tables, or in the device tree that many computers have instead.
// All texts are UTF-8. They are absent when the maker says nothing, as on some virtual machines.
#pragma once

#include <optional>
#include <string>

namespace kv::facts {

std::optional<std::string> ReadVendor();

std::optional<std::string> ReadModel();

/// Only the superuser can read it, except from a device tree.
std::optional<std::string> ReadSerialNumber();

/// In capital letters. Only the superuser can read it.
std::optional<std::string> ReadUuid();

}  // namespace kv::facts

// Texts that are empty where the system tells nothing.
#pragma once

#include <optional>
#include <string>

namespace platform::wmi {

/// None for an empty text.
inline std::optional<std::string> KnownText(const std::string& text) {
    return text.empty() ? std::nullopt : std::optional(text);
}

}  // namespace platform::wmi

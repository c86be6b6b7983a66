// The text of a unit file (systemd.unit(5), systemd.service(5)).
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/service_manager.h"

namespace platform::systemd {

/// A service as its unit file describes it. All texts are UTF-8, not escaped yet.
struct UnitDescription {
    std::string description;
    std::string program;                    // absolute path
    std::vector<std::string> dependencies;  // units that have to run first
    std::vector<std::pair<std::string, std::string>> environment;
    std::optional<ServiceFailureActions> failureActions;  // absent: never started again
};

/// What such a text begins with.
inline constexpr std::string_view unitFileMark =
    "# Written by the service that it describes, which removes it again only where it begins with this line.\n";

/// A failed service is started again after the first step's delay: as many times as the steps begin with restarts, or
/// forever when all of them are restarts. A stop that was asked for sets that count back.
std::string UnitFileText(const UnitDescription& unit);

}  // namespace platform::systemd

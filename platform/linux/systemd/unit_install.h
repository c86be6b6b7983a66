// Makes and removes units: writes their files, tells the manager, and takes back what failed.
#pragma once

#include <string>

#include "platform/errors.h"
#include "platform/linux/systemd/unit_control.h"
#include "platform/linux/systemd/unit_file.h"

namespace platform::systemd {

/// Makes the file of a new unit, has the manager read it, and has it started with the system or not. After a failure
/// nothing of it is left. serviceExists.
[[nodiscard]] Error InstallUnit(sd_bus* bus, const std::string& directory, const std::string& unit,
                                const UnitDescription& description, bool startsWithSystem);

/// Replaces a unit's file. After a failure the manager may not know of the new one yet.
[[nodiscard]] Error RewriteUnit(sd_bus* bus, const std::string& directory, const std::string& unit,
                                const UnitDescription& description);

/// Removes a unit whose file is in the directory; accessDenied for others.
[[nodiscard]] Error RemoveUnit(sd_bus* bus, const std::string& directory, const UnitCondition& condition);

}  // namespace platform::systemd

// Units that are made and removed here: their files, what the manager is told of them, and taking back what failed.
#pragma once

#include <string>

#include "platform/errors.h"
#include "platform/linux/systemd/unit_control.h"
#include "platform/linux/systemd/unit_file.h"

namespace platform::systemd {

/// Makes the file of a new unit, has the manager read it, and has it started with the system or not. After a failure
/// nothing of it is left. serviceExists.
Error InstallUnit(sd_bus* bus, const std::string& directory, const std::string& unit,
                  const UnitDescription& description, bool startsWithSystem);

/// Puts a new text in the place of a unit's file. After a failure the manager may not know of it yet.
Error RewriteUnit(sd_bus* bus, const std::string& directory, const std::string& unit,
                  const UnitDescription& description);

/// Takes a unit away, whose file stands in the directory; accessDenied for others.
Error RemoveUnit(sd_bus* bus, const std::string& directory, const UnitCondition& condition);

}  // namespace platform::systemd

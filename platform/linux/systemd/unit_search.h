// Finds the unit of a service's name, and describes a new service as a unit.
#pragma once

#include <string>
#include <string_view>

#include "platform/errors.h"
#include "platform/linux/systemd/unit_control.h"
#include "platform/linux/systemd/unit_file.h"
#include "platform/linux/systemd/units.h"
#include "platform/service_manager.h"

namespace platform::systemd {

/// The condition of the unit that a service's name stands for. Where there is no such unit, of one whose name differs
/// only in the case of letters. invalidName, serviceDoesNotExist.
[[nodiscard]] Error FindUnit(UnitManager& manager, std::u16string_view serviceName, UnitCondition& condition);

/// A new service as a unit. fileNotFound for a program that is not there or cannot be run; invalidParameter for one
/// that is not in double quotes, and for a dependency that cannot be a service's name.
[[nodiscard]] Error DescribeService(UnitManager& manager, const ServiceDefinition& definition,
                                    UnitDescription& description);

}  // namespace platform::systemd

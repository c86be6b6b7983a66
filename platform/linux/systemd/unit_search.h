// Services as they are named, found among units, and new ones described as units.
#pragma once

#include <string>
#include <string_view>

#include "platform/errors.h"
#include "platform/linux/systemd/unit_control.h"
#include "platform/linux/systemd/unit_file.h"
#include "platform/linux/systemd/units.h"
#include "platform/service_manager.h"

namespace platform::systemd {

/// The condition of the unit that a service's name stands for, and where there is none, of one whose name differs from
/// that in the case of letters alone. invalidName, serviceDoesNotExist.
Error FindUnit(UnitManager& manager, std::u16string_view serviceName, UnitCondition& condition);

/// A new service as a unit. fileNotFound for a program that is not there or cannot be run; invalidParameter for one
/// that does not stand in double quotes, and for a dependency that can be no service's name.
Error DescribeService(UnitManager& manager, const ServiceDefinition& definition, UnitDescription& description);

}  // namespace platform::systemd

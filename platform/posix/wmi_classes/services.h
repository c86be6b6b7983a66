// Win32_Service: how a unit of systemd reads as a service of Windows.
#pragma once

#include <chrono>
#include <string_view>

#include "platform/posix/wmi/wmi_class.h"
#include "platform/posix/wmi_classes/systemd_units.h"

namespace platform::wmi {

/// "Running", "Stopped", "Start Pending", "Stop Pending" or "Unknown", by the unit's active state.
std::u16string_view StateOf(const ServiceUnit& unit);

/// "OK", "Error" after a failure, "Degraded" while it waits to be started again after one.
std::u16string_view HealthOf(const ServiceUnit& unit);

/// "Auto", "Manual" or "Disabled", by the state of the unit's file.
std::u16string_view StartModeOf(const ServiceUnit& unit);

/// What Windows would give as the exit code of a failed service: the exit status of its main process, or where that did
/// not fail by itself, 1067, "The process terminated unexpectedly".
std::uint32_t ExitCodeOf(const ServiceEnding& ending);

/// Gathers the services; the manager has to answer each question within the patience. Without a manager there are none;
/// where one does not answer, the rest is left out with a notice.
WmiStatus GatherServices(const Gathering& gathering, std::chrono::milliseconds patience);

}  // namespace platform::wmi

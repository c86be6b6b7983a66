// Win32_Service: how a unit of systemd reads as a service of Windows.
#pragma once

#include <chrono>
#include <string_view>

#include "platform/linux/systemd/units.h"
#include "wql/wmi_class.h"

namespace kv::wql {

/// "Running", "Stopped", "Start Pending", "Stop Pending" or "Unknown", by the unit's active state.
std::u16string_view StateOf(const platform::systemd::ServiceUnit& unit);

/// "OK", "Error" after a failure, "Degraded" while it waits to be started again after one.
std::u16string_view HealthOf(const platform::systemd::ServiceUnit& unit);

/// "Auto", "Manual" or "Disabled", by the state of the unit's file. A unit that each boot starts, but that is inactive
/// for a good reason, is "Manual", as no one need start it: a job that is done, a condition that is not met, an init
/// script that no boot has tried.
std::u16string_view StartModeOf(const platform::systemd::ServiceUnit& unit,
                                const platform::systemd::ServiceStart& start);

/// What Windows would give as the exit code of a failed service: the exit status of its main process, or where that did
/// not fail by itself, 1067, "The process terminated unexpectedly".
std::uint32_t ExitCodeOf(const platform::systemd::ServiceEnding& ending);

/// Gathers the services; the manager has to answer each question within the patience. Without a manager there are none.
/// What it refuses to tell is left out with a notice; when it stops answering, that is a failure after the rows so far.
WmiStatus GatherServices(const Gathering& gathering, std::chrono::milliseconds patience);

}  // namespace kv::wql

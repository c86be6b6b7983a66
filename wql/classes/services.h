// Win32_Service: how a unit of systemd reads as a service of Windows.
#pragma once

#include <chrono>
#include <string_view>

#include "platform/linux/systemd/units.h"
#include "wql/wmi_class.h"

namespace kv::wql {

/// "Running", "Stopped", "Start Pending", "Stop Pending" or "Unknown", by the unit's active state.
std::u16string_view StateOf(const platform::systemd::ServiceUnit& unit);

/// "OK"; "Error" after a failure; "Degraded" while it waits for a restart after one.
std::u16string_view HealthOf(const platform::systemd::ServiceUnit& unit);

/// "Auto", "Manual" or "Disabled", by the state of the unit's file. A unit that each boot starts, but that is inactive
/// for a good reason, is "Manual", as nobody needs to start it: a finished job, an unmet condition, an init script that
/// the boot did not try.
std::u16string_view StartModeOf(const platform::systemd::ServiceUnit& unit,
                                const platform::systemd::ServiceStart& start);

/// What Windows would give as the exit code of a failed service: the exit status of its main process, or 1067, "The
/// process terminated unexpectedly", if that did not exit by itself.
std::uint32_t ExitCodeOf(const platform::systemd::ServiceEnding& ending);

/// Gathers the services. The manager must answer each question within the patience; without a manager there are no
/// services. A list that it refuses is left out with a notice, and what it refuses to tell of one service reads as 0
/// or false; if it stops answering, the query fails, after the rows so far.
WmiStatus GatherServices(const Gathering& gathering, std::chrono::milliseconds patience);

}  // namespace kv::wql

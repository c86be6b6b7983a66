// Win32_Service: units of systemd in the words of Windows' services.
#pragma once

#include <chrono>
#include <string_view>

#include "platform/linux/systemd/units.h"
#include "wql/wmi_class.h"

namespace kv::wql {

/// "Running", "Stopped", "Start Pending", "Stop Pending" or "Unknown", by the unit's active state.
std::u16string_view StateOf(const platform::systemd::ServiceUnit& unit);

/// "Error" after a failure, "Degraded" while the service waits for a restart after one, else "OK".
std::u16string_view HealthOf(const platform::systemd::ServiceUnit& unit);

/// "Auto", "Manual" or "Disabled", by the state of the unit's file. A unit that starts at each boot, but is inactive
/// for a good reason, is "Manual", because nobody needs to start it: a finished job, an unmet condition, an init script
/// that the boot did not try.
std::u16string_view StartModeOf(const platform::systemd::ServiceUnit& unit,
                                const platform::systemd::ServiceStart& start);

/// What Windows would give as the exit code of a failed service: the exit status of its main process, or 1067, "The
/// process terminated unexpectedly", if the process did not exit with a failure by itself.
std::uint32_t ExitCodeOf(const platform::systemd::ServiceEnding& ending);

/// Gathers the services. The manager must answer each question within the patience; without a manager there are no
/// services.
/// - If it refuses to list the loaded units, or stops answering, the query fails after the rows so far, with a notice.
/// - If it refuses to list unit files, or descriptions of units that are not loaded, these are left out with a notice.
/// - What it refuses to tell about one service is left out: 0, false or NULL, and 1067 as the exit code of a failed
/// one.
WmiStatus GatherServices(const Gathering& gathering, std::chrono::milliseconds patience);

}  // namespace kv::wql

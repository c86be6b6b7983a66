// Win32_Service: units of systemd in the words of Windows' services.
#pragma once

#include <chrono>
#include <string_view>

#include "platform/linux/systemd/unit_control.h"
#include "wql/wmi_class.h"

namespace kv::wql {

/// The state that the service manager gives a unit, as a word: "Running", "Stopped", "Paused", "Start Pending" and the
/// like. "Unknown" for a state of a later version of systemd.
std::u16string_view StateWordOf(const platform::systemd::UnitCondition& condition);

/// "Error" after a failure, or for a unit whose file is wrong or cannot be read, "Degraded" while the service waits for
/// a restart after one, else "OK".
std::u16string_view HealthOf(const platform::systemd::ServiceUnit& unit);

/// "Auto", "Manual" or "Disabled", by the state of the unit's file. A unit that starts at each boot, but is inactive
/// for a good reason, is "Manual", because nobody needs to start it: a finished job, an unmet condition, an init script
/// that the boot did not try.
std::u16string_view StartModeOf(const platform::systemd::ServiceUnit& unit,
                                const platform::systemd::ServiceStart& start);

/// Gathers the services. The manager must answer each question within the patience.
/// - If there is no manager, or it refuses to list the loaded units, or stops answering, the query fails after the rows
///   so far, with a notice.
/// - If it refuses to list unit files, or descriptions of units that are not loaded, these are left out with a notice.
/// - What it refuses to tell about services is left out, with one notice for all: 0, false or NULL, and 1067 as the
///   exit code of a failed one.
WmiStatus GatherServices(const Gathering& gathering, std::chrono::milliseconds patience);

}  // namespace kv::wql

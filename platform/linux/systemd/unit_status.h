// What the condition of a unit means for a service.
#pragma once

#include <cstdint>

#include "platform/linux/systemd/unit_control.h"
#include "platform/service_status.h"

namespace platform::systemd {

/// A state that a service is about to leave, as one observer last saw it.
struct SeenPending {
    ServiceState state = ServiceState::stopped;
    std::uint64_t since = 0;  // microseconds of the monotonic clock
};

/// The state; a job that waits counts as begun.
ServiceState StateOf(const UnitCondition& condition);

/// False if the active state is a word of a later version of systemd, which counts as stopped.
bool TellsState(const UnitCondition& condition);

/// Whether the unit can be frozen and thawed. That of this process never: it would wait for itself to go on.
[[nodiscard]] bool CanPause(const UnitCondition& condition);

/// Whether a unit is that of this process.
[[nodiscard]] bool IsOwnUnit(const std::string& unit);

/// The whole status. Systemd does not report progress: a change counts as making ten steps a second for the 30 seconds
/// after this observer has first seen it.
ServiceStatus StatusOf(const UnitCondition& condition, bool canPause, std::uint64_t now, SeenPending& seen);

}  // namespace platform::systemd

// One unit of systemd: what it is doing, and telling it to start and stop (org.freedesktop.systemd1(5)).
//
// Results are those of sd-bus: below 0, a negated errno value. Names of units are whole: "ssh.service".
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "platform/posix/systemd/system_bus.h"

namespace platform::systemd {

/// What the manager knows of a unit; words are its own.
struct UnitCondition {
    std::string id;           // its chief name, where the one that was asked for is an alias
    std::string loadState;    // "loaded", "not-found", "masked", ...
    std::string activeState;  // "active", "activating", "deactivating", "inactive", "failed", ...
    std::string subState;
    std::string freezerState;       // "running", "freezing", "frozen", "thawing"; empty where systemd knows no freezing
    std::string pendingJob;         // "start", "stop", "restart", ...: what waits to be done; empty for nothing
    std::string fragmentPath;       // its unit file; empty for none
    std::uint64_t changedAt = 0;    // microseconds of the monotonic clock at which the sub-state was entered; 0 never
    std::int32_t mainExitCode = 0;  // how its main process ended (CLD_EXITED, ...), 0 for not at all
    std::int32_t mainExitStatus = 0;  // its exit status, or the signal
};

/// Asks for one unit. One that does not exist is a success with loadState "not-found".
int ReadCondition(sd_bus* bus, const std::string& unit, UnitCondition& condition);

/// Ask the manager for a start or a stop, in place of what else is pending for the unit; neither waits for its end.
int StartUnit(sd_bus* bus, const std::string& unit);
int StopUnit(sd_bus* bus, const std::string& unit);

/// Hold all processes of a unit, and let them go on. Each waits until that is done.
int FreezeUnit(sd_bus* bus, const std::string& unit);
int ThawUnit(sd_bus* bus, const std::string& unit);

/// Services that are not inactive and need the unit to run, directly or through units of any kind: those first on which
/// none that follow depend.
int ListActiveDependents(sd_bus* bus, const std::string& unit, std::vector<std::string>& dependents);

/// Read all unit files anew, after one was written or deleted.
int ReloadManager(sd_bus* bus);

/// Have a unit started with the system, or not any more.
int EnableUnit(sd_bus* bus, const std::string& unit);
int DisableUnit(sd_bus* bus, const std::string& unit);

}  // namespace platform::systemd

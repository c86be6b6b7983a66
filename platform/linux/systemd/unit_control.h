// One unit of systemd: what it is doing, and telling it to start and stop (org.freedesktop.systemd1(5)).
//
// Results are those of sd-bus: below 0, a negated errno value, which ErrorOfManager turns into one of the seam's. Names
// of units are whole: "ssh.service".
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "platform/errors.h"
#include "platform/linux/systemd/system_bus.h"
#include "platform/linux/systemd/units.h"

namespace platform::systemd {

/// The seam's number for a result: a refusal of the manager as one of a service, a manager that is away as
/// rpcServerUnavailable, one that does not answer as serviceRequestTimeout. Success for results from 0 on.
[[nodiscard]] Error ErrorOfManager(int result);

/// What the manager knows of a unit; words are its own.
struct UnitCondition {
    std::string id;                 // its main name, where the one that was asked for is an alias
    std::string loadState;          // "loaded", "not-found", "masked", ...
    std::string activeState;        // "active", "activating", "deactivating", "inactive", "failed", ...
    std::string freezerState;       // "running", "freezing", "frozen", "thawing"; empty where systemd knows no freezing
    std::string pendingJob;         // "start", "stop", "restart", ...: what waits to be done; empty for nothing
    std::string fragmentPath;       // its unit file; empty when it has none
    std::int32_t mainExitCode = 0;  // how its main process ended (CLD_EXITED, ...), 0 for not at all
    std::int32_t mainExitStatus = 0;  // its exit status, or the signal
    bool canStop = true;              // false: only other units may have it stopped
};

/// What a list tells of a unit; the rest stays to be asked for.
[[nodiscard]] UnitCondition ConditionOf(const ServiceUnit& unit);

/// Fill in a part of a condition: the freezer's state, how the main process ended, and whether it may be stopped.
[[nodiscard]] int ReadFreezer(sd_bus* bus, UnitCondition& condition);
[[nodiscard]] int ReadEnding(sd_bus* bus, UnitCondition& condition);
[[nodiscard]] int ReadCanStop(sd_bus* bus, UnitCondition& condition);

/// Asks for one unit. One that does not exist is a success with loadState "not-found".
[[nodiscard]] int ReadCondition(sd_bus* bus, const std::string& unit, UnitCondition& condition);

/// Whether there is such a unit: it has a file, or still runs without one.
[[nodiscard]] bool Exists(const UnitCondition& condition);

/// Whether it does not run, and is neither starting nor stopping.
[[nodiscard]] bool IsAtRest(const UnitCondition& condition);

/// Ask the manager for a start or a stop, in place of what else is pending for the unit. Neither waits until it is
/// done.
[[nodiscard]] int StartUnit(sd_bus* bus, const std::string& unit);
[[nodiscard]] int StopUnit(sd_bus* bus, const std::string& unit);

/// Hold all processes of a unit, and let them go on. Each waits until that is done, at most five times as long as other
/// calls.
[[nodiscard]] int FreezeUnit(sd_bus* bus, const std::string& unit);
[[nodiscard]] int ThawUnit(sd_bus* bus, const std::string& unit);

/// Services that are not at rest, or are to be started, and need the unit to run, directly or through units of any
/// kind, each before those that it needs itself. Units that need each other come in no certain order.
[[nodiscard]] int ListActiveDependents(sd_bus* bus, const std::string& unit, std::vector<std::string>& dependents);

/// Read all unit files again, after one was written or deleted. Waits five times as long as other calls.
int ReloadManager(sd_bus* bus);

/// Have a unit started with the system, or not any more.
[[nodiscard]] int EnableUnit(sd_bus* bus, const std::string& unit);
int DisableUnit(sd_bus* bus, const std::string& unit);

}  // namespace platform::systemd

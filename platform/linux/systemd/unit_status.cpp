#include "platform/linux/systemd/unit_status.h"

#include <algorithm>
#include <csignal>
#include <linux/magic.h>
#include <sys/vfs.h>
#include <systemd/sd-login.h>

#include "platform/errors.h"
#include "platform/linux/systemd/bus_message.h"

namespace platform::systemd {

namespace {

using enum ServiceState;

/// When to look again. Half a second costs little, and is soon enough for those who wait.
constexpr std::uint32_t pendingWaitHint = 500;

/// How long a change counts as making progress, and the time of one step of it.
constexpr std::uint64_t progressSteps = 300;
constexpr std::uint64_t progressStepMicroseconds = 100'000;

bool IsOneOf(std::string_view word, std::initializer_list<std::string_view> words) {
    return std::find(words.begin(), words.end(), word) != words.end();
}

/// The freezer's words may have an end that says by whom: "frozen-by-parent".
ServiceState StateOfRunning(std::string_view freezer) {
    if (freezer.starts_with("frozen")) return paused;
    if (freezer.starts_with("freezing")) return pausePending;
    return freezer == "thawing" ? continuePending : running;
}

bool IsPending(ServiceState state) { return state != stopped && state != running && state != paused; }

std::uint32_t CheckPointOf(ServiceState state, std::uint64_t now, SeenPending& seen) {
    if (seen.state != state) seen = {state, now};
    const std::uint64_t steps = (now - seen.since) / progressStepMicroseconds;
    return static_cast<std::uint32_t>(1 + std::min(steps, progressSteps));
}

void TellEnding(const UnitCondition& condition, ServiceStatus& status) {
    if (condition.activeState != "failed") return;
    const bool failedByItself = condition.mainExitCode == CLD_EXITED && condition.mainExitStatus != 0;
    status.dwWin32ExitCode = failedByItself ? error::serviceSpecificError : error::processAborted;
    if (failedByItself) status.dwServiceSpecificExitCode = static_cast<std::uint32_t>(condition.mainExitStatus);
}

}  // namespace

ServiceState StateOf(const UnitCondition& condition) {
    if (condition.activeState == "activating") return startPending;
    if (condition.activeState == "deactivating") return stopPending;
    if (IsOneOf(condition.activeState, {"active", "reloading", "refreshing"})) {
        const bool isToStop = IsOneOf(condition.pendingJob, {"stop", "restart", "try-restart"});
        return isToStop ? stopPending : StateOfRunning(condition.freezerState);
    }
    return IsOneOf(condition.pendingJob, {"start", "restart", "reload-or-start"}) ? startPending : stopped;
}

bool TellsState(const UnitCondition& condition) {
    return StateOf(condition) != stopped || IsOneOf(condition.activeState, {"inactive", "failed", "maintenance"});
}

bool IsOwnUnit(const std::string& unit) {
    char* name = nullptr;
    const int result = sd_pid_get_unit(0, &name);
    const CText owned(name);
    return result >= 0 && unit == name;
}

/// Only the second version of control groups can freeze any of them.
bool CanPause(const UnitCondition& condition) {
    struct statfs facts {};
    return !condition.freezerState.empty() && statfs("/sys/fs/cgroup", &facts) == 0 &&
           facts.f_type == CGROUP2_SUPER_MAGIC && !IsOwnUnit(condition.id);
}

ServiceStatus StatusOf(const UnitCondition& condition, bool canPause, std::uint64_t now, SeenPending& seen) {
    ServiceStatus status{.dwServiceType = service_type::ownProcess, .dwCurrentState = StateOf(condition)};
    if (IsPending(status.dwCurrentState)) {
        status.dwWaitHint = pendingWaitHint;
        status.dwCheckPoint = CheckPointOf(status.dwCurrentState, now, seen);
        return status;
    }
    seen = {};
    if (status.dwCurrentState == stopped) {
        TellEnding(condition, status);
    } else {
        status.dwControlsAccepted =
            (condition.canStop ? service_accepts::stop : 0) | (canPause ? service_accepts::pauseAndContinue : 0);
    }
    return status;
}

}  // namespace platform::systemd

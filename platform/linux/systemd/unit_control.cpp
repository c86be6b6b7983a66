#include "platform/linux/systemd/unit_control.h"

#include <cerrno>
#include <chrono>
#include <set>

#include "platform/linux/linux.h"
#include "platform/linux/systemd/bus_message.h"
#include "platform/linux/systemd/units.h"

namespace platform::systemd {

namespace {

using Clock = std::chrono::steady_clock;

/// How many times as long as others a call may take whose answer comes when the work is done.
constexpr unsigned workPatience = 5;

/// How long a walk along dependencies may take in all; each unit costs a few calls.
constexpr std::chrono::seconds walkPatience{25};

bool IsAtRest(std::string_view activeState) { return activeState == "inactive" || activeState == "failed"; }

int ReadDetails(sd_bus* bus, UnitCondition& condition) {
    int result = ReadFreezer(bus, condition);
    if (!IsLost(result)) result = ReadCanStop(bus, condition);
    if (!IsLost(result)) result = GetText(bus, condition.id, unitInterface, "FragmentPath", condition.fragmentPath);
    return result < 0 ? result : ReadEnding(bus, condition);
}

/// Calls one of the manager's methods that take a unit, and a job mode or nothing.
int CallForUnit(sd_bus* bus, const char* method, const std::string& unit, const char* jobMode, unsigned patience) {
    Message call;
    Message answer;
    int result = MakeManagerCall(bus, method, call);
    if (result >= 0) result = sd_bus_message_append_basic(call.get(), 's', unit.c_str());
    if (result >= 0 && jobMode != nullptr) result = sd_bus_message_append_basic(call.get(), 's', jobMode);
    return result < 0 ? result : Send(bus, call, answer, patience);
}

/// Calls a method that takes a list of unit files and then some flags, none of which is set.
int CallForFile(sd_bus* bus, const char* method, const std::string& unit, int flags) {
    Message call;
    Message answer;
    int result = MakeManagerCall(bus, method, call);
    if (result >= 0) result = AppendTexts(call.get(), {unit});
    constexpr int no = 0;
    for (; flags > 0 && result >= 0; --flags) result = sd_bus_message_append_basic(call.get(), 'b', &no);
    return result < 0 ? result : Send(bus, call, answer);
}

/// Adds the units that need a unit to run.
int ListNeeding(sd_bus* bus, const std::string& unit, std::vector<std::string>& needing) {
    int result = 0;
    for (const char* relation : {"RequiredBy", "RequisiteOf", "BoundBy"}) {
        if (result >= 0) result = GetTexts(bus, unit, unitInterface, relation, needing);
    }
    return result;
}

/// All units that need a unit, each before those that it needs itself.
int ListAllNeeding(sd_bus* bus, const std::string& unit, std::vector<std::string>& ordered) {
    struct Step {
        std::string unit;
        std::vector<std::string> ahead;  // units that need it, not looked at yet
    };
    const Clock::time_point deadline = Clock::now() + walkPatience;
    std::set<std::string> seen{unit};
    std::vector<Step> path{{unit, {}}};
    int result = ListNeeding(bus, unit, path.back().ahead);
    while (!path.empty() && result >= 0) {
        if (Clock::now() > deadline) return -ETIMEDOUT;
        Step& last = path.back();
        if (last.ahead.empty()) {
            if (path.size() > 1) ordered.push_back(std::move(last.unit));
            path.pop_back();
            continue;
        }
        std::string next = std::move(last.ahead.back());
        last.ahead.pop_back();
        if (!seen.insert(next).second) continue;
        path.push_back({std::move(next), {}});
        result = ListNeeding(bus, path.back().unit, path.back().ahead);
    }
    return result;
}

}  // namespace

Error ErrorOfManager(int result) {
    if (result >= 0) return error::success;
    switch (-result) {
        case ENOENT:
            return error::serviceDoesNotExist;
        case ERFKILL:  // masked
            return error::serviceDisabled;
        case EINVAL:  // configured to be started and stopped by other units alone; names are checked before
            return error::accessDenied;
        case EBADR:  // a job, method or property that the unit does not have
        case EOPNOTSUPP:
            return error::invalidServiceControl;
        case EDEADLK:    // against what else waits to be done
        case ECANCELED:  // the manager shuts down
            return error::serviceCannotAcceptControl;
        case ETIMEDOUT:
            return error::serviceRequestTimeout;
        case ECONNREFUSED:
        case ECONNRESET:
        case EHOSTUNREACH:
        case ENOTCONN:
        case ENXIO:
        case EPIPE:
            return error::rpcServerUnavailable;
        default:
            return ErrorFromErrno(-result);
    }
}

UnitCondition ConditionOf(const ServiceUnit& unit) {
    UnitCondition condition;
    condition.id = unit.id;
    condition.loadState = unit.loadState;
    condition.activeState = unit.activeState;
    condition.pendingJob = unit.pendingJob;
    return condition;
}

int ReadFreezer(sd_bus* bus, UnitCondition& condition) {
    const int result = GetText(bus, condition.id, unitInterface, "FreezerState", condition.freezerState);
    return result == -EBADR ? 0 : result;  // older managers know no freezing and have no such property
}

int ReadEnding(sd_bus* bus, UnitCondition& condition) {
    const std::string& unit = condition.id;
    const int result = GetPlain(bus, unit, serviceInterface, "ExecMainCode", 'i', condition.mainExitCode);
    if (result < 0) return result;
    return GetPlain(bus, unit, serviceInterface, "ExecMainStatus", 'i', condition.mainExitStatus);
}

int ReadCanStop(sd_bus* bus, UnitCondition& condition) {
    int truth = 0;
    const int result = GetPlain(bus, condition.id, unitInterface, "CanStop", 'b', truth);
    if (result >= 0) condition.canStop = truth != 0;
    return result;
}

int ReadCondition(sd_bus* bus, const std::string& unit, UnitCondition& condition) {
    std::vector<ServiceUnit> found;
    const int result = ListByNames(bus, {unit}, found);
    if (result < 0) return result;
    if (found.empty())
        found.push_back({.id = unit,
                         .description = "",
                         .loadState = "not-found",
                         .activeState = "inactive",
                         .subState = "dead",
                         .fileState = ""});
    condition = ConditionOf(found[0]);
    return Exists(condition) ? ReadDetails(bus, condition) : 0;
}

bool Exists(const UnitCondition& condition) { return condition.loadState != "not-found" || !IsAtRest(condition); }

bool IsAtRest(const UnitCondition& condition) { return IsAtRest(condition.activeState); }

int StartUnit(sd_bus* bus, const std::string& unit) { return CallForUnit(bus, "StartUnit", unit, "replace", 1); }

int StopUnit(sd_bus* bus, const std::string& unit) { return CallForUnit(bus, "StopUnit", unit, "replace", 1); }

int FreezeUnit(sd_bus* bus, const std::string& unit) {
    return CallForUnit(bus, "FreezeUnit", unit, nullptr, workPatience);
}

int ThawUnit(sd_bus* bus, const std::string& unit) { return CallForUnit(bus, "ThawUnit", unit, nullptr, workPatience); }

int ListActiveDependents(sd_bus* bus, const std::string& unit, std::vector<std::string>& dependents) {
    dependents.clear();
    std::vector<std::string> needing;
    const int result = ListAllNeeding(bus, unit, needing);
    std::erase_if(needing, [](const std::string& name) { return !name.ends_with(serviceSuffix); });
    if (result < 0 || needing.empty()) return result;
    std::vector<ServiceUnit> services;
    const int listed = ListByNames(bus, needing, services);
    for (const ServiceUnit& service : services) {
        const bool isToStart = service.pendingJob == "start" || service.pendingJob == "restart";
        if (!IsAtRest(service.activeState) || isToStart) dependents.push_back(service.id);
    }
    return listed;
}

int ReloadManager(sd_bus* bus) {
    Message call;
    Message answer;
    const int result = MakeManagerCall(bus, "Reload", call);
    return result < 0 ? result : Send(bus, call, answer, workPatience);
}

int EnableUnit(sd_bus* bus, const std::string& unit) { return CallForFile(bus, "EnableUnitFiles", unit, 2); }

int DisableUnit(sd_bus* bus, const std::string& unit) { return CallForFile(bus, "DisableUnitFiles", unit, 1); }

}  // namespace platform::systemd

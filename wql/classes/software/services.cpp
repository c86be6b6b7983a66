#include "wql/classes/software/services.h"

#include "facts/network/host_names.h"
#include "platform/linux/systemd/unit_status.h"
#include "wql/class_tree.h"
#include "wql/classes/failures.h"
#include "wql/classes/software/unit_list.h"

namespace kv::wql {

namespace {

using enum CimType;
using namespace platform::systemd;

struct Need {
    enum Bits : std::uint32_t {
        description = 1,
        process = 2,
        freezer = 4,
        canStop = 8,
        ending = 16,
        user = 32,
        command = 64,
        startMode = 128,
        host = 256,
    };
};

struct Row {
    ServiceUnit unit;
    UnitCondition condition;
    platform::ServiceStatus status;
    std::uint32_t process = 0;
    ServiceStart start;
    std::optional<std::string> user;
    std::optional<std::string> command;
    std::u16string host;
};

using platform::ServiceState;

bool IsStopped(const Row& row) { return StateOf(row.condition) == ServiceState::stopped; }
bool HasFailed(const ServiceUnit& unit) { return unit.activeState == "failed"; }

/// Whether it runs; a paused one has been started, too.
bool IsStarted(const Row& row) {
    switch (StateOf(row.condition)) {
        case ServiceState::running:
        case ServiceState::pausePending:
        case ServiceState::paused:
        case ServiceState::continuePending:
            return true;
        default:
            return false;
    }
}

bool Accepts(const Row& row, std::uint32_t control) { return (row.status.dwControlsAccepted & control) != 0; }

constexpr auto displayNameIn = [](const Row& row) { return DisplayNameOf(row.unit); };

// clang-format off
constexpr PropertyInfo properties[] = {
    {u"AcceptPause", boolean, Need::freezer, "whether it runs or is paused, and the system can freeze its control group",
        [](const Row& row) { return Accepts(row, platform::service_accepts::pauseAndContinue); }},
    {u"AcceptStop", boolean, Need::freezer | Need::canStop, "whether it runs or is paused, and may be stopped by hand",
        [](const Row& row) { return Accepts(row, platform::service_accepts::stop); }},
    {u"Caption", string, Need::description, "as DisplayName", displayNameIn},
    {u"CheckPoint", uint32, Need::freezer, "1 in a pending state, else 0: systemd tells of no progress",
        [](const Row& row) { return row.status.dwCheckPoint; }},
    {u"CreationClassName", string, 0, "this class", [](const Row&) { return u"Win32_Service"; }},
    {u"DelayedAutoStart", boolean, 0, "never: systemd delays no service's start", [](const Row&) { return false; }},
    {u"Description", string, Need::description, "as DisplayName", displayNameIn},
    {u"DesktopInteract", boolean, 0, "never", [](const Row&) { return false; }},
    {u"DisplayName", string, Need::description, "Description of the unit", displayNameIn},
    {u"ErrorControl", string, 0, "Normal: a failed start is logged, and the system goes on", [](const Row&) { return u"Normal"; }},
    {u"ExitCode", uint32, Need::ending, "1066 after a failure with an exit status of its own, 1067 after any other, else 0",
        [](const Row& row) { return row.status.dwWin32ExitCode; }},
    {u"InstallDate", datetime},
    {u"Name", string, 0, "of the unit, without .service", [](const Row& row) { return ServiceName(row.unit); }},
    {u"PathName", string, Need::command, "the first ExecStart command", [](const Row& row) { return row.command; }},
    {u"ProcessId", uint32, Need::process, "the main process; 0 without one", [](const Row& row) { return row.process; }},
    {u"ServiceSpecificExitCode", uint32, Need::ending, "the main process's exit status if ExitCode is 1066, else 0",
        [](const Row& row) { return row.status.dwServiceSpecificExitCode; }},
    {u"ServiceType", string, 0, "always the same", [](const Row&) { return u"Own Process"; }},
    {u"Started", boolean, Need::freezer, "whether it runs, or is paused", [](const Row& row) { return IsStarted(row); }},
    {u"StartMode", string, Need::startMode, "Disabled: masked; Auto: enabled, unless inactive for a good reason; else Manual",
        [](const Row& row) { return StartModeOf(row.unit, row.start); }},
    {u"StartName", string, Need::user, "the user as whom it runs", [](const Row& row) { return row.user; }},
    {u"State", string, Need::freezer, "Running, Stopped, Start Pending, Stop Pending, or with its control group frozen Paused",
        [](const Row& row) { return StateWordOf(row.condition); }},
    {u"Status", string, 0, "OK; Error after a failure, or if its unit cannot be used; Degraded between restarts", [](const Row& row) { return HealthOf(row.unit); }},
    {u"SystemCreationClassName", string, 0, "the computer's class", [](const Row&) { return u"Win32_ComputerSystem"; }},
    {u"SystemName", string, Need::host, "the computer's name", [](const Row& row) { return row.host; }},
    {u"TagId", uint32, 0, "0: units have no place in a load order group", [](const Row&) { return 0; }},
    {u"WaitHint", uint32, Need::freezer, "milliseconds until another look is worth it; 0 outside a pending state",
        [](const Row& row) { return row.status.dwWaitHint; }},
};
// clang-format on

bool MayBeAtRest(const ServiceUnit& unit) { return unit.activeState == "inactive" && FileModeOf(unit) == u"Auto"; }

bool IsAtRest(const ServiceUnit& unit, const ServiceStart& start) {
    if (start.isOneShot) return true;
    return start.wasTried ? !start.conditionsMet : unit.fileState == "generated";
}

/// The manager's patterns for the services that can match.
std::vector<std::string> PatternsOf(const Gathering& gathering) {
    const std::vector<CimValue>* names = gathering.valuesOf(u"Name");
    if (names == nullptr) return {"*.service"};
    std::vector<std::string> patterns;
    for (const CimValue& value : *names) {
        const auto* name = std::get_if<std::u16string>(&value.held);
        if (name != nullptr) patterns.push_back(PatternOfName(platform::Utf8FromWide(*name)));
    }
    return patterns;
}

/// Asks for the properties of one service that the query needs, unless its state already tells them. Negative only if
/// the manager no longer answers.
int ReadDetails(UnitManager& manager, const Gathering& gathering, Row& row, Refusals& refusals) {
    int result = 0;
    int refusal = 0;  // the first one
    const auto ask = [&](std::uint32_t need, bool applies, const auto& question) {
        if (IsLost(result) || !applies || !gathering.asksFor(need)) return;
        result = question();
        if (result < 0 && refusal == 0) refusal = result;
    };
    sd_bus* const bus = manager.bus();
    ServiceUnit& unit = row.unit;
    UnitCondition& condition = row.condition;
    ask(Need::freezer, IsStarted(row), [&] { return ReadFreezer(bus, condition); });
    ask(Need::canStop, IsStarted(row), [&] { return ReadCanStop(bus, condition); });
    ask(Need::startMode, unit.fileState.empty(), [&] { return manager.FileState(unit, unit.fileState); });
    ask(Need::startMode, MayBeAtRest(unit), [&] { return manager.LastStart(unit, row.start); });
    ask(Need::process, !IsStopped(row), [&] { return manager.MainProcess(unit, row.process); });
    ask(Need::ending, HasFailed(unit), [&] { return ReadEnding(bus, condition); });
    ask(Need::user, true, [&] { return ReadUser(manager, unit, row.user); });
    ask(Need::command, true, [&] { return ReadCommand(manager, unit, row.command); });
    if (IsLost(result)) return result;
    if (refusal < 0) refusals.add(unit.id, refusal);
    return 0;
}

/// The status as one who asks only once sees it.
platform::ServiceStatus FirstStatusOf(const UnitCondition& condition) {
    SeenPending never;
    return StatusOf(condition, CanPause(condition), 0, never);
}

int HandOver(UnitManager& manager, const Gathering& gathering, std::vector<ServiceUnit>& units) {
    const std::u16string host = gathering.asksFor(Need::host) ? facts::HostName() : std::u16string();
    Refusals refusals;
    int result = 0;
    for (ServiceUnit& unit : units) {
        Row row;
        row.host = host;
        row.condition = ConditionOf(unit);
        row.unit = std::move(unit);
        result = ReadDetails(manager, gathering, row, refusals);
        row.status = FirstStatusOf(row.condition);
        if (result < 0 || !gathering.row(&row)) break;
    }
    refusals.note(gathering);
    return result;
}

constexpr ClassInfo classes[] = {
    {u"Win32_Service", u"Win32_BaseService", properties,
     [](const Gathering& gathering) { return GatherServices(gathering, usualPatience); }, u"Name",
     "services of systemd: state, start mode, process"},
};

const ClassFamily family([] { return std::span<const ClassInfo>(classes); });

}  // namespace

std::u16string_view StateWordOf(const UnitCondition& condition) {
    constexpr std::u16string_view words[] = {
        u"Unknown", u"Stopped",          u"Start Pending", u"Stop Pending",
        u"Running", u"Continue Pending", u"Pause Pending", u"Paused",
    };
    return TellsState(condition) ? words[static_cast<std::size_t>(StateOf(condition))] : words[0];
}

std::u16string_view HealthOf(const ServiceUnit& unit) {
    const bool isUnusable = unit.loadState == "bad-setting" || unit.loadState == "error";
    if (HasFailed(unit) || isUnusable) return u"Error";
    return unit.subState == "auto-restart" ? u"Degraded" : u"OK";
}

std::u16string_view StartModeOf(const ServiceUnit& unit, const ServiceStart& start) {
    if (MayBeAtRest(unit) && IsAtRest(unit, start)) return u"Manual";
    return FileModeOf(unit);
}

WmiStatus GatherServices(const Gathering& gathering, std::chrono::milliseconds patience) {
    const std::vector<std::string> patterns = PatternsOf(gathering);
    if (patterns.empty()) return wmi_status::ok;  // without patterns the manager would list all
    UnitManager manager;
    std::vector<ServiceUnit> units;
    int result = manager.Connect(patience);
    if (result >= 0) result = ListServices(manager, patterns, gathering.asksFor(Need::description), gathering, units);
    if (result >= 0) result = HandOver(manager, gathering, units);
    return result < 0 ? FailedManager(result, "Services were left out", gathering) : wmi_status::ok;
}

}  // namespace kv::wql

#include "wql/classes/services.h"

#include <cerrno>
#include <fmt/format.h>
#include <system_error>

#include "facts/host_names.h"
#include "wql/class_tree.h"

namespace kv::wql {

namespace {

using enum CimType;
using namespace platform::systemd;

struct Need {
    enum Bits : std::uint32_t {
        description = 1,
        process = 2,
        canStop = 4,
        ending = 8,
        user = 16,
        command = 32,
        startMode = 64,
        host = 128,
    };
};

struct Row {
    ServiceUnit unit;
    std::uint32_t process = 0;
    bool canStop = false;
    ServiceStart start;
    std::uint32_t exitCode = 0;
    std::uint32_t endingStatus = 0;
    std::optional<std::string> user;
    std::optional<std::string> command;
    std::u16string host;
};

constexpr std::chrono::milliseconds usualPatience{5000};

bool IsStarted(const ServiceUnit& unit) { return StateOf(unit) == u"Running"; }
bool IsStopped(const ServiceUnit& unit) { return StateOf(unit) == u"Stopped"; }
bool HasFailed(const ServiceUnit& unit) { return unit.activeState == "failed"; }

std::string_view ServiceName(const ServiceUnit& unit) {
    std::string_view name = unit.id;
    if (name.ends_with(serviceSuffix)) name.remove_suffix(serviceSuffix.size());
    return name;
}

/// The unit's description. If it does not have one, the manager gives its id; the name stands for both.
std::string_view DisplayNameOf(const ServiceUnit& unit) {
    const bool isDescribed = !unit.description.empty() && unit.description != unit.id;
    return isDescribed ? std::string_view(unit.description) : ServiceName(unit);
}

constexpr auto displayNameIn = [](const Row& row) { return DisplayNameOf(row.unit); };

// clang-format off
constexpr PropertyInfo properties[] = {
    {u"AcceptPause", boolean, 0, "never: units cannot pause", [](const Row&) { return false; }},
    {u"AcceptStop", boolean, Need::canStop, "whether it runs and may be stopped by hand", [](const Row& row) { return row.canStop; }},
    {u"Caption", string, Need::description, "as DisplayName", displayNameIn},
    {u"CheckPoint", uint32},
    {u"CreationClassName", string, 0, "this class", [](const Row&) { return u"Win32_Service"; }},
    {u"DelayedAutoStart", boolean},
    {u"Description", string, Need::description, "as DisplayName", displayNameIn},
    {u"DesktopInteract", boolean, 0, "never", [](const Row&) { return false; }},
    {u"DisplayName", string, Need::description, "Description of the unit", displayNameIn},
    {u"ErrorControl", string},
    {u"ExitCode", uint32, Need::ending, "after a failure its exit status, or 1067; else 0", [](const Row& row) { return row.exitCode; }},
    {u"InstallDate", datetime},
    {u"Name", string, 0, "of the unit, without .service", [](const Row& row) { return ServiceName(row.unit); }},
    {u"PathName", string, Need::command, "the first ExecStart command", [](const Row& row) { return row.command; }},
    {u"ProcessId", uint32, Need::process, "the main process; 0 without one", [](const Row& row) { return row.process; }},
    {u"ServiceSpecificExitCode", uint32, Need::ending, "after a failure its exit status or signal; else 0",
        [](const Row& row) { return row.endingStatus; }},
    {u"ServiceType", string, 0, "always the same", [](const Row&) { return u"Own Process"; }},
    {u"Started", boolean, 0, "whether State is Running", [](const Row& row) { return IsStarted(row.unit); }},
    {u"StartMode", string, Need::startMode, "Disabled: masked; Auto: enabled, unless inactive for a good reason; else Manual",
        [](const Row& row) { return StartModeOf(row.unit, row.start); }},
    {u"StartName", string, Need::user, "the user as whom it runs", [](const Row& row) { return row.user; }},
    {u"State", string, 0, "Running, Stopped, Start Pending, Stop Pending", [](const Row& row) { return StateOf(row.unit); }},
    {u"Status", string, 0, "OK; Error after a failure; Degraded between restarts", [](const Row& row) { return HealthOf(row.unit); }},
    {u"SystemCreationClassName", string, 0, "the computer's class", [](const Row&) { return u"Win32_ComputerSystem"; }},
    {u"SystemName", string, Need::host, "the computer's name", [](const Row& row) { return row.host; }},
    {u"TagId", uint32},
    {u"WaitHint", uint32},
};
// clang-format on

struct Meaning {
    std::string_view word;
    std::u16string_view text;
};

template <std::size_t count>
std::u16string_view MeaningOf(std::string_view word, const Meaning (&meanings)[count], std::u16string_view otherwise) {
    for (const Meaning& meaning : meanings) {
        if (meaning.word == word) return meaning.text;
    }
    return otherwise;
}

/// How the unit's file says that it is started. For init scripts the files are generated.
std::u16string_view FileModeOf(const ServiceUnit& unit) {
    constexpr Meaning meanings[] = {
        {"enabled", u"Auto"},    {"enabled-runtime", u"Auto"},    {"generated", u"Auto"},
        {"masked", u"Disabled"}, {"masked-runtime", u"Disabled"},
    };
    return MeaningOf(unit.fileState, meanings, unit.loadState == "masked" ? u"Disabled" : u"Manual");
}

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

void AddFailureNotice(int failure, std::string_view loss, const Gathering& gathering) {
    gathering.notice(
        fmt::format("{}; asking the service manager failed: {}", loss, std::generic_category().message(-failure)));
}

/// Adds the services of unit files to the loaded units. Negative only if the manager no longer answers.
int AddUnitFiles(UnitManager& manager, const std::vector<std::string>& patterns, const Gathering& gathering,
                 std::vector<ServiceUnit>& units) {
    std::vector<UnitFile> files;
    int result = manager.ListFiles(patterns, files);
    if (IsLost(result)) return result;
    if (result < 0) AddFailureNotice(result, "Services that are not loaded were left out", gathering);
    units = WithUnitFiles(std::move(units), files);
    if (!gathering.asksFor(Need::description)) return 0;
    result = manager.Describe(units);
    if (IsLost(result)) return result;
    if (result < 0) AddFailureNotice(result, "Descriptions of services that are not loaded were left out", gathering);
    return 0;
}

int ReadEnding(UnitManager& manager, Row& row) {
    ServiceEnding ending;
    const int result = manager.LastEnding(row.unit, ending);
    row.exitCode = ExitCodeOf(ending);
    row.endingStatus = ending.status;
    return result;
}

/// The text stays null if it is empty, or the manager does not give it.
int ReadUnitText(UnitManager& manager, int (UnitManager::*read)(const ServiceUnit&, std::string&),
                 const ServiceUnit& unit, std::optional<std::string>& text) {
    std::string given;
    const int result = (manager.*read)(unit, given);
    if (!given.empty()) text = std::move(given);
    return result;
}

int ReadUser(UnitManager& manager, Row& row) {
    const int result = ReadUnitText(manager, &UnitManager::User, row.unit, row.user);
    if (result >= 0 && !row.user) row.user = "root";
    return result;
}

/// Asks for the properties of one service that the query needs, unless its state already tells them. Negative only if
/// the manager no longer answers.
int ReadDetails(UnitManager& manager, const Gathering& gathering, Row& row) {
    int result = 0;
    const auto isDue = [&](std::uint32_t need, bool applies) {
        return !IsLost(result) && applies && gathering.asksFor(need);
    };
    ServiceUnit& unit = row.unit;
    if (isDue(Need::startMode, unit.fileState.empty())) result = manager.FileState(unit, unit.fileState);
    if (isDue(Need::startMode, MayBeAtRest(unit))) result = manager.LastStart(unit, row.start);
    if (isDue(Need::process, !IsStopped(unit))) result = manager.MainProcess(unit, row.process);
    if (isDue(Need::canStop, IsStarted(unit))) result = manager.CanStop(unit, row.canStop);
    if (isDue(Need::ending, HasFailed(unit))) result = ReadEnding(manager, row);
    if (isDue(Need::user, true)) result = ReadUser(manager, row);
    if (isDue(Need::command, true)) result = ReadUnitText(manager, &UnitManager::StartCommand, unit, row.command);
    return IsLost(result) ? result : 0;
}

int HandOver(UnitManager& manager, const Gathering& gathering, std::vector<ServiceUnit>& units) {
    const std::u16string host = gathering.asksFor(Need::host) ? facts::HostName() : std::u16string();
    for (ServiceUnit& unit : units) {
        Row row;
        row.host = host;
        row.unit = std::move(unit);
        const int result = ReadDetails(manager, gathering, row);
        if (result < 0 || !gathering.row(&row)) return result;
    }
    return 0;
}

constexpr ClassInfo classes[] = {
    {u"Win32_Service", u"Win32_BaseService", properties,
     [](const Gathering& gathering) { return GatherServices(gathering, usualPatience); }, u"Name"},
};

const ClassFamily family([] { return std::span<const ClassInfo>(classes); });

}  // namespace

std::u16string_view StateOf(const ServiceUnit& unit) {
    constexpr Meaning meanings[] = {
        {"active", u"Running"},           {"reloading", u"Running"},
        {"refreshing", u"Running"},       {"inactive", u"Stopped"},
        {"failed", u"Stopped"},           {"maintenance", u"Stopped"},
        {"activating", u"Start Pending"}, {"deactivating", u"Stop Pending"},
    };
    return MeaningOf(unit.activeState, meanings, u"Unknown");
}

std::u16string_view HealthOf(const ServiceUnit& unit) {
    if (HasFailed(unit)) return u"Error";
    return unit.subState == "auto-restart" ? u"Degraded" : u"OK";
}

std::u16string_view StartModeOf(const ServiceUnit& unit, const ServiceStart& start) {
    if (MayBeAtRest(unit) && IsAtRest(unit, start)) return u"Manual";
    return FileModeOf(unit);
}

std::uint32_t ExitCodeOf(const ServiceEnding& ending) {
    constexpr std::uint32_t processAborted = 1067;
    return ending.exited && ending.status != 0 ? ending.status : processAborted;
}

WmiStatus GatherServices(const Gathering& gathering, std::chrono::milliseconds patience) {
    const std::vector<std::string> patterns = PatternsOf(gathering);
    if (patterns.empty()) return wmi_status::ok;  // without patterns the manager would list all
    UnitManager manager;
    std::vector<ServiceUnit> units;
    int result = manager.Connect(patience);
    if (result >= 0) result = manager.ListLoaded(patterns, units);
    if (IsAbsent(result)) return wmi_status::ok;
    if (result >= 0) result = AddUnitFiles(manager, patterns, gathering, units);
    if (result >= 0) result = HandOver(manager, gathering, units);
    if (result >= 0) return wmi_status::ok;
    AddFailureNotice(result, "Services were left out", gathering);
    return result == -ETIMEDOUT ? wmi_status::timedOut : wmi_status::failed;
}

}  // namespace kv::wql

// Win32_StartupCommand: the services that start with the system.
#include <fmt/format.h>

#include "facts/accounts/account_files.h"
#include "facts/system_text.h"
#include "wql/class_tree.h"
#include "wql/classes/failures.h"
#include "wql/classes/software/unit_list.h"

namespace kv::wql {

namespace {

using enum CimType;
using namespace platform::systemd;

struct Need {
    enum Bits : std::uint32_t { description = 1, command = 2, location = 4, user = 8, number = 16 };
};

struct Row {
    ServiceUnit unit;
    std::optional<std::string> command;
    std::optional<std::string> location;
    std::optional<std::string> user;
    std::optional<std::uint32_t> number;  // of the user
};

CimValue SidOf(const Row& row) { return row.number ? CimValue(fmt::format("S-1-22-1-{}", *row.number)) : CimValue(); }

// clang-format off
constexpr PropertyInfo properties[] = {
    {u"Caption", string, 0, "as Name", [](const Row& row) { return ServiceName(row.unit); }},
    {u"Command", string, Need::command, "the first ExecStart command of the unit", [](const Row& row) { return row.command; }},
    {u"Description", string, Need::description, "Description of the unit", [](const Row& row) { return DisplayNameOf(row.unit); }},
    {u"Location", string, Need::location, "the unit's file", [](const Row& row) { return row.location; }},
    {u"Name", string, 0, "of the unit, without .service", [](const Row& row) { return ServiceName(row.unit); }},
    {u"SettingID", string},
    {u"User", string, Need::user, "the user as whom it runs", [](const Row& row) { return row.user; }},
    {u"UserSID", string, Need::user | Need::number, "S-1-22-1 and the user's number; NULL for a user who has no line in /etc/passwd",
        [](const Row& row) { return SidOf(row); }},
};
// clang-format on

/// Negative only if the manager no longer answers.
int ReadDetails(UnitManager& manager, const Gathering& gathering, Row& row, Refusals& refusals) {
    const ServiceUnit& unit = row.unit;
    int result = 0;
    if (gathering.asksFor(Need::command)) result = ReadCommand(manager, unit, row.command);
    if (result >= 0 && gathering.asksFor(Need::user)) result = ReadUser(manager, unit, row.user);
    if (result >= 0 && gathering.asksFor(Need::location)) {
        std::string path;
        result = manager.FilePath(unit, path);
        row.location = facts::KnownText(path);
    }
    if (IsLost(result)) return result;
    if (result < 0) refusals.add(unit.id, result);
    return 0;
}

int HandOver(UnitManager& manager, const Gathering& gathering, std::vector<ServiceUnit>& units) {
    std::optional<facts::LocalUsers> users;
    if (gathering.asksFor(Need::number)) users.emplace();
    if (users && !users->areKnown()) gathering.notice("UserSID was left out: /etc/passwd cannot be read");
    Refusals refusals;
    int result = 0;
    for (ServiceUnit& unit : units) {
        // Only units without a file of their own, such as instances of templates, come without its state.
        if (unit.fileState.empty()) result = manager.FileState(unit, unit.fileState);
        if (IsLost(result)) break;
        if (result < 0) refusals.add(unit.id, result);
        if (FileModeOf(unit) != u"Auto") continue;
        Row row;
        row.unit = std::move(unit);
        result = ReadDetails(manager, gathering, row, refusals);
        if (users) row.number = users->numberOf(row.user.value_or(""));
        if (result < 0 || !gathering.row(&row)) break;
    }
    refusals.note(gathering);
    return IsLost(result) ? result : 0;
}

WmiStatus GatherStartupCommands(const Gathering& gathering) {
    UnitManager manager;
    std::vector<ServiceUnit> units;
    int result = manager.Connect(usualPatience);
    if (result >= 0)
        result = ListServices(manager, {"*.service"}, gathering.asksFor(Need::description), gathering, units);
    if (result >= 0) result = HandOver(manager, gathering, units);
    return result < 0 ? FailedManager(result, "Services that start with the system were left out", gathering)
                      : wmi_status::ok;
}

constexpr ClassInfo classes[] = {
    {u"Win32_StartupCommand", u"CIM_Setting", properties, GatherStartupCommands, u"Command,Location,Name,User",
     "services that start with the system"},
};

const ClassFamily family([] { return std::span<const ClassInfo>(classes); });

}  // namespace

}  // namespace kv::wql

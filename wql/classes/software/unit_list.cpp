#include "wql/classes/software/unit_list.h"

#include <fmt/format.h>

#include "wql/classes/failures.h"

namespace kv::wql {

namespace {

using namespace platform::systemd;

/// Adds the services of unit files to the loaded units. Negative only if the manager no longer answers.
int AddUnitFiles(UnitManager& manager, const std::vector<std::string>& patterns, bool areDescribed,
                 const Gathering& gathering, std::vector<ServiceUnit>& units) {
    std::vector<UnitFile> files;
    int result = manager.ListFiles(patterns, files);
    if (IsLost(result)) return result;
    if (result < 0) AddManagerNotice(result, "Services that are not loaded were left out", gathering);
    units = WithUnitFiles(std::move(units), files);
    if (!areDescribed) return 0;
    result = manager.Describe(units);
    if (IsLost(result)) return result;
    if (result < 0) AddManagerNotice(result, "Descriptions of services that are not loaded were left out", gathering);
    return 0;
}

/// The text stays null if it is empty, or the manager does not give it.
int ReadUnitText(UnitManager& manager, int (UnitManager::*read)(const ServiceUnit&, std::string&),
                 const ServiceUnit& unit, std::optional<std::string>& text) {
    std::string given;
    const int result = (manager.*read)(unit, given);
    if (!given.empty()) text = std::move(given);
    return result;
}

}  // namespace

std::string_view ServiceName(const ServiceUnit& unit) {
    std::string_view name = unit.id;
    if (name.ends_with(serviceSuffix)) name.remove_suffix(serviceSuffix.size());
    return name;
}

std::string_view DisplayNameOf(const ServiceUnit& unit) {
    const bool isDescribed = !unit.description.empty() && unit.description != unit.id;
    return isDescribed ? std::string_view(unit.description) : ServiceName(unit);
}

std::u16string_view FileModeOf(const ServiceUnit& unit) {
    constexpr struct {
        std::string_view state;
        std::u16string_view mode;
    } meanings[] = {
        {"enabled", u"Auto"},    {"enabled-runtime", u"Auto"},    {"generated", u"Auto"},
        {"masked", u"Disabled"}, {"masked-runtime", u"Disabled"},
    };
    for (const auto& [state, mode] : meanings) {
        if (unit.fileState == state) return mode;
    }
    return unit.loadState == "masked" ? u"Disabled" : u"Manual";
}

int ListServices(UnitManager& manager, const std::vector<std::string>& patterns, bool areDescribed,
                 const Gathering& gathering, std::vector<ServiceUnit>& units) {
    const int result = manager.ListLoaded(patterns, units);
    return result < 0 ? result : AddUnitFiles(manager, patterns, areDescribed, gathering, units);
}

int ReadUser(UnitManager& manager, const ServiceUnit& unit, std::optional<std::string>& user) {
    const int result = ReadUnitText(manager, &UnitManager::User, unit, user);
    if (result >= 0 && !user) user = "root";
    return result;
}

int ReadCommand(UnitManager& manager, const ServiceUnit& unit, std::optional<std::string>& command) {
    return ReadUnitText(manager, &UnitManager::StartCommand, unit, command);
}

void Refusals::add(const std::string& unit, int failure) {
    if (units_++ == 0) first_ = unit, failure_ = failure;
}

void Refusals::note(const Gathering& gathering) const {
    if (units_ == 0) return;
    const std::string others = units_ > 1 ? fmt::format(" and {} others", units_ - 1) : "";
    AddManagerNotice(failure_, fmt::format("Properties of {}{} were left out", first_, others), gathering);
}

}  // namespace kv::wql

// What the classes that are about units share: lists of services, and what the manager tells of one.
//
// Results are those of platform/linux/systemd/units.h: below 0, a negated errno value.
#pragma once

#include <chrono>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/linux/systemd/units.h"
#include "wql/wmi_class.h"

namespace kv::wql {

/// How long each question may wait for the manager's answer.
inline constexpr std::chrono::milliseconds usualPatience{5000};

/// The unit's id without ".service".
std::string_view ServiceName(const platform::systemd::ServiceUnit& unit);

/// The unit's description. If it does not have one, the manager gives its id; the name stands for both.
std::string_view DisplayNameOf(const platform::systemd::ServiceUnit& unit);

/// How the unit's file says that it is started: "Auto", "Disabled" or "Manual". For init scripts the files are
/// generated.
std::u16string_view FileModeOf(const platform::systemd::ServiceUnit& unit);

/// The services that match the manager's patterns, loaded or not. Unit files or descriptions that the manager refuses
/// to list are left out, with a notice.
int ListServices(platform::systemd::UnitManager& manager, const std::vector<std::string>& patterns, bool areDescribed,
                 const Gathering& gathering, std::vector<platform::systemd::ServiceUnit>& units);

/// The user as whom a service runs, and its first command. Null if there is none, or the manager does not tell.
int ReadUser(platform::systemd::UnitManager& manager, const platform::systemd::ServiceUnit& unit,
             std::optional<std::string>& user);
int ReadCommand(platform::systemd::UnitManager& manager, const platform::systemd::ServiceUnit& unit,
                std::optional<std::string>& command);

/// What the manager refused to tell of units.
class Refusals {
  public:
    void add(const std::string& unit, int failure);

    /// One notice for all.
    void note(const Gathering& gathering) const;

  private:
    std::size_t units_ = 0;
    std::string first_;
    int failure_ = 0;
};

}  // namespace kv::wql

// Service units as the service manager, systemd, tells of them on the system's bus (org.freedesktop.systemd1(5)).
//
// Results are those of sd-bus: below 0, a negated errno value.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/linux/systemd/system_bus.h"
#include "platform/linux/systemd/unit_name.h"

namespace platform::systemd {

/// States are the manager's words: "loaded", "active", "running", "enabled" and the like.
struct ServiceUnit {
    std::string id;  // "ssh.service"
    std::string description;
    std::string loadState;
    std::string activeState;
    std::string subState;
    std::string fileState;        // of its unit file; empty when it has no file
    std::string pendingJob = {};  // "start", "stop", ...: what waits to be done; empty for nothing
};

/// What the manager knows of a service's last start.
struct ServiceStart {
    bool isOneShot = false;      // a job, and not something that stays
    bool wasTried = false;       // since the manager has it loaded
    bool conditionsMet = false;  // at that try
};

struct UnitFile {
    std::string id;  // the file's name
    std::string state;
    std::string target;  // where it leads when it is a symbolic link
};

/// The units as one list: those that are loaded and really exist, and an inactive unit for each other unit file.
/// Templates (their names end in "@") are not units, and an alias is another name of a unit that is listed already;
/// systemd before 246 gives an alias the state of that unit.
std::vector<ServiceUnit> WithUnitFiles(std::vector<ServiceUnit> loaded, const std::vector<UnitFile>& files);

/// Whether a result says that there is no manager: no bus, or nobody of that name on it.
[[nodiscard]] bool IsAbsent(int result);

/// Whether a result says that the manager or the bus has stopped answering, so that it makes no sense to ask more.
[[nodiscard]] bool IsLost(int result);

/// Units of any kind by their whole names, loaded or not; one that does not exist has the load state "not-found". What
/// cannot be a unit's name is left out.
[[nodiscard]] int ListByNames(sd_bus* bus, const std::vector<std::string>& names, std::vector<ServiceUnit>& units);

/// The manager at the other end of a connection.
class UnitManager {
  public:
    int Connect(std::chrono::milliseconds patience) { return OpenManagerBus(patience, bus_); }

    /// The connection; null before the first one.
    sd_bus* bus() const { return bus_.get(); }

    /// Units of any kind, such as timers, that are loaded and match one of the patterns, as in a shell.
    int ListLoaded(const std::vector<std::string>& patterns, std::vector<ServiceUnit>& units);
    int ListFiles(const std::vector<std::string>& patterns, std::vector<UnitFile>& files);

    /// Fills in the descriptions of units that are not loaded.
    int Describe(std::vector<ServiceUnit>& units);

    /// Properties of one service. One that is not loaded is loaded by the manager for the time being.
    int MainProcess(const ServiceUnit& unit, std::uint32_t& processId);  // 0: it has none
    int LastStart(const ServiceUnit& unit, ServiceStart& start);
    int FileState(const ServiceUnit& unit, std::string& state);  // empty: it has no unit file
    int FilePath(const ServiceUnit& unit, std::string& path);    // empty: it has no unit file
    int User(const ServiceUnit& unit, std::string& user);        // empty: the superuser

    /// The first command that starts it, with a blank between the arguments; empty when there is none.
    int StartCommand(const ServiceUnit& unit, std::string& command);

  private:
    BusConnection bus_;
};

}  // namespace platform::systemd

// The service manager is systemd. A manager's handle is a connection to it; the handles of services share the
// connection that they were opened with. One that broke off, as when systemd executes itself again, is replaced at the
// next operation.
#include <cerrno>
#include <chrono>
#include <memory>
#include <optional>
#include <strings.h>

#include "platform/backend.h"
#include "platform/guarded.h"
#include "platform/linux/linux.h"
#include "platform/linux/systemd/bus_message.h"
#include "platform/linux/systemd/unit_install.h"
#include "platform/linux/systemd/unit_search.h"
#include "platform/linux/systemd/unit_status.h"
#include "platform/utf.h"

namespace platform {

namespace {

using namespace systemd;
using enum ServiceState;

struct Connection {
    ServiceManagerPlace place;
    UnitManager manager;

    sd_bus* bus() const { return manager.bus(); }
};

struct OpenHandle {
    std::shared_ptr<Connection> connection;
    std::uint32_t rights = 0;
    std::string unit = {};  // empty: the manager itself
    SeenPending seen = {};
    std::optional<UnitDescription> description = {};  // of one that this handle has made
};

OpenHandle& OpenOf(ServiceHandle handle) { return *reinterpret_cast<OpenHandle*>(handle); }

ServiceHandle NewHandle(OpenHandle open) {
    return reinterpret_cast<ServiceHandle>(std::make_unique<OpenHandle>(std::move(open)).release());
}

std::uint64_t NowMicroseconds() {
    const auto now = std::chrono::steady_clock::now().time_since_epoch();
    return static_cast<std::uint64_t>(std::chrono::duration_cast<std::chrono::microseconds>(now).count());
}

/// Takes in what has come meanwhile, such as that the other side has hung up.
bool IsUsable(sd_bus* bus) {
    int result = bus != nullptr ? 1 : -ENOTCONN;
    while (result > 0) result = sd_bus_process(bus, nullptr);
    return result == 0 && sd_bus_is_ready(bus) > 0;
}

Error Connect(Connection& connection) {
    if (IsUsable(connection.bus())) return error::success;
    const int result = connection.manager.Connect(connection.place.patience);
    return IsAbsent(result) ? error::rpcServerUnavailable : ErrorOfManager(result);
}

bool IsHungUp(int result) { return result == -ECONNRESET || result == -ENOTCONN || result == -EPIPE; }

bool IsService(const OpenHandle& open) { return !open.unit.empty(); }

/// Checks what a handle was opened for, and makes sure of its connection.
Error CheckRights(const OpenHandle& open, std::uint32_t rights) {
    return (open.rights & rights) != rights ? error::accessDenied : Connect(*open.connection);
}

Error UseManager(ServiceHandle handle, std::uint32_t rights = 0) {
    if (handle == 0 || IsService(OpenOf(handle))) return error::invalidHandle;
    return CheckRights(OpenOf(handle), rights);
}

Error UseService(ServiceHandle handle, std::uint32_t rights) {
    if (handle == 0 || !IsService(OpenOf(handle))) return error::invalidHandle;
    return CheckRights(OpenOf(handle), rights);
}

/// A unit that has gone since it was opened, as one without a file does when it ends, counts as stopped.
Error Look(OpenHandle& service, UnitCondition& condition, ServiceStatus& status) {
    int result = ReadCondition(service.connection->bus(), service.unit, condition);
    // Asking once more does no harm, and systemd hangs up whenever it executes itself again.
    if (IsHungUp(result) && Connect(*service.connection) == error::success) {
        result = ReadCondition(service.connection->bus(), service.unit, condition);
    }
    if (result < 0) return ErrorOfManager(result);
    status = StatusOf(condition, CanPause(condition), NowMicroseconds(), service.seen);
    return error::success;
}

Error OpenSCManagerW(const ServiceManagerPlace& place, std::uint32_t rights, ServiceHandle& manager) {
    manager = 0;
    OpenHandle open{.connection = std::make_shared<Connection>(Connection{.place = place, .manager = {}}),
                    .rights = rights};
    if (const Error failure = Connect(*open.connection); failure != 0) return failure;
    manager = NewHandle(std::move(open));
    return error::success;
}

Error OpenServiceW(ServiceHandle manager, std::u16string_view name, std::uint32_t rights, ServiceHandle& service) {
    service = 0;
    if (const Error failure = UseManager(manager); failure != 0) return failure;
    const auto& connection = OpenOf(manager).connection;
    UnitCondition condition;
    if (const Error failure = FindUnit(connection->manager, name, condition); failure != 0) return failure;
    service = NewHandle({.connection = connection, .rights = rights, .unit = condition.id});
    return error::success;
}

Error ListServiceNames(ServiceHandle manager, std::u16string_view name, std::vector<std::u16string>& names) {
    names.clear();
    if (const Error failure = UseManager(manager); failure != 0) return failure;
    UnitCondition condition;
    if (const Error failure = FindUnit(OpenOf(manager).connection->manager, name, condition); failure != 0)
        return failure;
    const std::string& unit = condition.id;
    names = {WideFromUtf8(unit), WideFromUtf8(unit.substr(0, unit.size() - serviceSuffix.size()))};
    const std::string becomes = UnitNameOf(Utf8FromWide(name));
    if (strcasecmp(becomes.c_str(), unit.c_str()) == 0) names.emplace_back(name);
    return error::success;
}

/// A deleted unit that still runs does not prevent a new one.
Error CheckIsNew(UnitManager& manager, std::u16string_view name) {
    UnitCondition condition;
    const Error failure = FindUnit(manager, name, condition);
    if (failure == error::serviceDoesNotExist) return error::success;
    if (failure != error::success) return failure;
    return condition.loadState == "not-found" ? error::success : error::serviceExists;
}

Error CreateServiceW(ServiceHandle manager, const ServiceDefinition& definition, ServiceHandle& service) {
    service = 0;
    if (const Error failure = UseManager(manager, manager_right::createService); failure != 0) return failure;
    // A unit file cannot say so. It would have to be masked, and then there is no service.
    if (definition.start == ServiceStartType::disabled) return error::notSupported;
    const auto& connection = OpenOf(manager).connection;
    if (const Error failure = CheckIsNew(connection->manager, definition.name); failure != 0) return failure;
    OpenHandle made{.connection = connection,
                    .rights = service_right::all,
                    .unit = UnitNameOf(Utf8FromWide(definition.name)),
                    .description = UnitDescription()};
    Error failure = DescribeService(connection->manager, definition, *made.description);
    if (failure != 0) return failure;
    failure = InstallUnit(connection->bus(), connection->place.unitDirectory, made.unit, *made.description,
                          definition.start == ServiceStartType::automatic);
    if (failure == 0) service = NewHandle(std::move(made));
    return failure;
}

Error ChangeServiceConfig2W(ServiceHandle service, const ServiceFailureActions& actions) {
    if (const Error failure = UseService(service, service_right::all); failure != 0) return failure;
    OpenHandle& open = OpenOf(service);
    if (!open.description) return error::notSupported;
    open.description->failureActions = actions;
    return RewriteUnit(open.connection->bus(), open.connection->place.unitDirectory, open.unit, *open.description);
}

Error DeleteService(ServiceHandle service) {
    if (const Error failure = UseService(service, service_right::all); failure != 0) return failure;
    OpenHandle& open = OpenOf(service);
    UnitCondition condition;
    ServiceStatus status;
    if (const Error failure = Look(open, condition, status); failure != 0) return failure;
    if (condition.loadState == "not-found") return error::serviceDoesNotExist;
    const Error failure = RemoveUnit(open.connection->bus(), open.connection->place.unitDirectory, condition);
    if (failure == 0) open.description.reset();
    return failure;
}

/// The unit itself is there, so what is missing or masked is a unit that it depends on.
Error StartServiceW(ServiceHandle service) {
    if (const Error failure = UseService(service, service_right::start); failure != 0) return failure;
    OpenHandle& open = OpenOf(service);
    UnitCondition condition;
    ServiceStatus status;
    if (const Error failure = Look(open, condition, status); failure != 0) return failure;
    if (condition.loadState == "not-found") return error::serviceDoesNotExist;
    if (condition.loadState == "masked") return error::serviceDisabled;
    const int result = StartUnit(open.connection->bus(), open.unit);
    if (result == -ENOENT) return error::serviceDependencyDeleted;
    return result == -ERFKILL ? error::serviceDependencyFailed : ErrorOfManager(result);
}

Error QueryServiceStatusEx(ServiceHandle service, ServiceStatus& status) {
    if (const Error failure = UseService(service, service_right::queryStatus); failure != 0) return failure;
    UnitCondition condition;
    return Look(OpenOf(service), condition, status);
}

Error Stop(sd_bus* bus, const UnitCondition& condition, ServiceState state) {
    if (state == stopPending || state == pausePending || state == continuePending) {
        return error::serviceCannotAcceptControl;
    }
    std::vector<std::string> dependents;
    const int listed = ListActiveDependents(bus, condition.id, dependents);
    if (!dependents.empty()) return error::dependentServicesRunning;
    return ErrorOfManager(listed < 0 ? listed : StopUnit(bus, condition.id));
}

Error SetPaused(sd_bus* bus, const UnitCondition& condition, ServiceState state, bool isToPause) {
    if (IsOwnUnit(condition.id)) return error::invalidServiceControl;
    if (state != running && state != paused) return error::serviceCannotAcceptControl;
    return ErrorOfManager(isToPause ? FreezeUnit(bus, condition.id) : ThawUnit(bus, condition.id));
}

std::uint32_t RightFor(std::uint32_t control) {
    switch (control) {
        case service_control::stop:
            return service_right::stop;
        case service_control::pause:
        case service_control::resume:
            return service_right::pauseAndContinue;
        default:
            return 0;
    }
}

Error Tell(sd_bus* bus, const UnitCondition& condition, ServiceState state, std::uint32_t control) {
    switch (control) {
        case service_control::stop:
            return Stop(bus, condition, state);
        case service_control::pause:
        case service_control::resume:
            return SetPaused(bus, condition, state, control == service_control::pause);
        case service_control::interrogate:
            return error::success;
        default:
            return error::invalidServiceControl;
    }
}

Error ControlService(ServiceHandle service, std::uint32_t control, ServiceStatus& status) {
    if (const Error failure = UseService(service, RightFor(control)); failure != 0) return failure;
    OpenHandle& open = OpenOf(service);
    UnitCondition condition;
    if (const Error failure = Look(open, condition, status); failure != 0) return failure;
    if (status.dwCurrentState == stopped) return error::serviceNotActive;
    const Error failure = Tell(open.connection->bus(), condition, status.dwCurrentState, control);
    return failure != 0 ? failure : Look(open, condition, status);
}

Error EnumDependentServicesW(ServiceHandle service, std::size_t bufferSize, std::vector<DependentService>& services,
                             std::size_t& bytesNeeded) {
    services.clear();
    bytesNeeded = 0;
    if (const Error failure = UseService(service, service_right::enumerateDependents); failure != 0) return failure;
    const OpenHandle& open = OpenOf(service);
    std::vector<std::string> units;
    const int listed = ListActiveDependents(open.connection->bus(), open.unit, units);
    if (listed < 0) return ErrorOfManager(listed);
    std::vector<DependentService> found;
    for (const std::string& unit : units) {
        OpenHandle dependent{.connection = open.connection, .unit = unit};
        ServiceStatus status;
        UnitCondition condition;
        const Error failure = Look(dependent, condition, status);
        if (failure != 0) return failure;
        if (status.dwCurrentState == stopped) continue;
        const std::u16string name = WideFromUtf8(unit.substr(0, unit.size() - serviceSuffix.size()));
        bytesNeeded += sizeof(DependentService) + (name.size() + 1) * sizeof(char16_t);
        found.push_back({.name = name, .status = status});
    }
    if (bytesNeeded > bufferSize) return error::moreData;
    services = std::move(found);
    return error::success;
}

void CloseServiceHandle(ServiceHandle handle) {
    if (handle != 0) delete &OpenOf(handle);
}

}  // namespace

ServiceManagerOperations LinuxServiceManager(const ServiceManagerPlace& place) {
    return {.OpenSCManagerW = Guarded([place](std::uint32_t rights, ServiceHandle& manager) {
                return OpenSCManagerW(place, rights, manager);
            }),
            .OpenServiceW = Guarded(OpenServiceW),
            .ListServiceNames = Guarded(ListServiceNames),
            .CreateServiceW = Guarded(CreateServiceW),
            .ChangeServiceConfig2W = Guarded(ChangeServiceConfig2W),
            .DeleteService = Guarded(DeleteService),
            .StartServiceW = Guarded(StartServiceW),
            .ControlService = Guarded(ControlService),
            .QueryServiceStatusEx = Guarded(QueryServiceStatusEx),
            .EnumDependentServicesW = Guarded(EnumDependentServicesW),
            .CloseServiceHandle = CloseServiceHandle};
}

void InstallServices() {
    CurrentOperations<ServiceHostOperations>() = LinuxServiceHost();
    CurrentOperations<ServiceManagerOperations>() = LinuxServiceManager();
}

}  // namespace platform

#include "exchange/service_control.h"

#include <algorithm>
#include <vector>

#include "foundation/log.h"
#include "platform/clock.h"

namespace kv {

namespace {

using platform::DependentService;
using platform::Error;
using platform::OwnedServiceHandle;
using platform::ServiceHandle;
using platform::ServiceManager;
using platform::ServiceState;
using platform::ServiceStatus;
namespace service_control = platform::service_control;
namespace service_right = platform::service_right;

constexpr std::uint64_t waitLimit = 30000;  // milliseconds that a service is waited for

/// In milliseconds. A status that is not pending has a wait hint of 0. Without a pause the wait for a service that
/// never reaches its state would keep a processor and the service manager busy.
constexpr std::uint32_t pauseWithoutHint = 100;

/// In milliseconds. No service means a longer hint, and some say 0xFFFFFFFF, which to a sleep is forever.
constexpr std::uint32_t longestHint = 3600 * 1000;

/// What is done to which service; for the log.
struct Task {
    const char* operation;
    std::u16string_view service;
};

/// A service as it was found; it is closed before its manager.
struct OpenedService {
    OwnedServiceHandle manager = {};
    OwnedServiceHandle service = {};
    ServiceStatus status = {};
};

std::uint64_t TickCount() { return platform::Clock().GetTickCount64(); }

/// Whether a step went well; a line says when it did not.
bool Succeeds(const Task& task, const char* step, Error failure) {
    if (failure == platform::error::success) return true;
    Log1("\t %s :: %s failed for the service %s (%d)\n", task.operation, step, task.service, failure);
    return false;
}

bool Open(const Task& task, std::uint32_t rights, OpenedService& opened) {
    return Succeeds(task, "OpenSCManagerW",
                    ServiceManager().OpenSCManagerW(platform::manager_right::all, opened.manager.Place())) &&
           Succeeds(
               task, "OpenServiceW",
               ServiceManager().OpenServiceW(opened.manager.get(), task.service, rights, opened.service.Place())) &&
           Succeeds(task, "QueryServiceStatusEx",
                    ServiceManager().QueryServiceStatusEx(opened.service.get(), opened.status));
}

/// Ends an operation because of the state that the service is in.
bool RefuseState(const Task& task, const ServiceStatus& status) {
    Log1("\t %s :: The service %s is in the state %d, its exit codes are %d and %d. Nothing more is done\n",
         task.operation, task.service, status.dwCurrentState, status.dwWin32ExitCode, status.dwServiceSpecificExitCode);
    return false;
}

/// Whether a moment is no further back than the limit; if it is, a line says so.
bool IsInTime(const Task& task, const ServiceStatus& status, std::uint64_t since) {
    if (TickCount() - since <= waitLimit) return true;
    Log1("\t %s :: The service %s takes too long. It is in the state %d\n", task.operation, task.service,
         status.dwCurrentState);
    return false;
}

bool PollUntil(const Task& task, ServiceHandle service, ServiceState wanted, std::uint64_t since,
               ServiceStatus& status) {
    while (status.dwCurrentState != wanted) {
        if (!Succeeds(task, "QueryServiceStatusEx", QueryAfterWaitHint(service, status))) return false;
        if (status.dwCurrentState != wanted && !IsInTime(task, status, since)) return false;
    }
    Log2("\t %s :: The service %s has come to the state %d\n", task.operation, task.service, wanted);
    return true;
}

/// After the call that started a service: waits while the start is pending. A service that runs too late does not
/// count.
bool PollStart(const Task& task, ServiceHandle service) {
    const std::uint64_t since = TickCount();
    ServiceStatus status;
    if (!Succeeds(task, "QueryServiceStatusEx", ServiceManager().QueryServiceStatusEx(service, status))) return false;
    while (status.dwCurrentState == ServiceState::startPending) {
        if (!Succeeds(task, "QueryServiceStatusEx", QueryAfterWaitHint(service, status))) return false;
        if (!IsInTime(task, status, since)) return false;
    }
    if (status.dwCurrentState != ServiceState::running) return RefuseState(task, status);
    Log2("\t %s :: The service %s runs\n", task.operation, task.service);
    return true;
}

bool ControlAndWait(const Task& task, OpenedService& opened, std::uint32_t control, ServiceState wanted) {
    const ServiceHandle service = opened.service.get();
    if (!Succeeds(task, "ControlService", ServiceManager().ControlService(service, control, opened.status)))
        return false;
    return PollUntil(task, service, wanted, TickCount(), opened.status);
}

/// Pausing and continuing.
bool ChangeState(const Task& task, ServiceState from, std::uint32_t control, ServiceState wanted) {
    OpenedService opened;
    if (!Open(task, service_right::queryStatus | service_right::pauseAndContinue, opened)) return false;
    if (opened.status.dwCurrentState != from) return RefuseState(task, opened.status);
    return ControlAndWait(task, opened, control, wanted);
}

/// The active services that depend on one; false when they cannot be obtained.
bool FindDependents(const Task& task, ServiceHandle service, std::vector<DependentService>& dependents) {
    std::size_t needed = 0;
    Error failure = ServiceManager().EnumDependentServicesW(service, 0, dependents, needed);
    if (failure == platform::error::moreData) {
        const std::size_t bufferSize = needed;
        failure = ServiceManager().EnumDependentServicesW(service, bufferSize, dependents, needed);
    }
    return Succeeds(task, "EnumDependentServicesW", failure);
}

/// Serves the active dependents of a service in their order, up to the first that fails. They share one limit, which
/// begins here.
template <class Serve>
bool ForEachDependent(const char* operation, ServiceHandle service, Serve serve) {
    const std::uint64_t since = TickCount();
    std::vector<DependentService> dependents;
    return FindDependents({operation, u"at hand"}, service, dependents) &&
           std::all_of(dependents.begin(), dependents.end(), [&](const DependentService& dependent) {
               return serve(Task{operation, dependent.name}, since);
           });
}

/// What is started is the service depended on: a manager that refuses to start a running service lets this succeed for
/// one dependent at most.
bool StartForDependent(const Task& task, ServiceHandle service, ServiceHandle manager, std::uint64_t since) {
    OwnedServiceHandle dependent;
    constexpr std::uint32_t rights = service_right::queryStatus | service_right::start;
    ServiceStatus status;
    return Succeeds(task, "OpenServiceW",
                    ServiceManager().OpenServiceW(manager, task.service, rights, dependent.Place())) &&
           Succeeds(task, "StartServiceW of the service depended on", ServiceManager().StartServiceW(service)) &&
           Succeeds(task, "QueryServiceStatusEx", ServiceManager().QueryServiceStatusEx(dependent.get(), status)) &&
           PollUntil(task, dependent.get(), ServiceState::running, since, status);
}

bool StopDependent(const Task& task, ServiceHandle manager, std::uint64_t since) {
    OwnedServiceHandle dependent;
    constexpr std::uint32_t rights = service_right::queryStatus | service_right::stop;
    if (!Succeeds(task, "OpenServiceW",
                  ServiceManager().OpenServiceW(manager, task.service, rights, dependent.Place())))
        return false;
    ServiceStatus status;
    const Error failure = ServiceManager().ControlService(dependent.get(), service_control::stop, status);
    if (failure == platform::error::serviceNotActive) return true;  // it has ended since it was listed
    return Succeeds(task, "ControlService", failure) &&
           PollUntil(task, dependent.get(), ServiceState::stopped, since, status);
}

}  // namespace

bool StartServiceAndWait(std::u16string_view name) {
    Log3("\t Inside StartServiceAndWait() \n");
    const Task task{"StartServiceAndWait", name};
    OpenedService opened;
    if (!Open(task, service_right::all, opened)) return false;
    const ServiceHandle service = opened.service.get();
    const ServiceState state = opened.status.dwCurrentState;
    if (state != ServiceState::stopped && state != ServiceState::stopPending) return RefuseState(task, opened.status);
    if (!WaitWhilePending(service, ServiceState::stopPending, opened.status)) return RefuseState(task, opened.status);
    return StartDependentServices(service, opened.manager.get()) &&
           Succeeds(task, "StartServiceW", ServiceManager().StartServiceW(service)) && PollStart(task, service);
}

bool StopServiceAndWait(std::u16string_view name) {
    Log3("\t Inside StopServiceAndWait() \n");
    const Task task{"StopServiceAndWait", name};
    constexpr std::uint32_t rights =
        service_right::stop | service_right::queryStatus | service_right::enumerateDependents;
    OpenedService opened;
    if (!Open(task, rights, opened)) return false;
    const ServiceState state = opened.status.dwCurrentState;
    if (state == ServiceState::stopped || state == ServiceState::stopPending) return RefuseState(task, opened.status);
    // A dependent that still runs makes the manager refuse the control.
    StopDependentServices(opened.service.get(), opened.manager.get());
    return ControlAndWait(task, opened, service_control::stop, ServiceState::stopped);
}

bool PauseServiceAndWait(std::u16string_view name) {
    Log3("\t Inside PauseServiceAndWait() \n");
    return ChangeState({"PauseServiceAndWait", name}, ServiceState::running, service_control::pause,
                       ServiceState::paused);
}

bool ContinueServiceAndWait(std::u16string_view name) {
    Log3("\t Inside ContinueServiceAndWait() \n");
    return ChangeState({"ContinueServiceAndWait", name}, ServiceState::paused, service_control::resume,
                       ServiceState::running);
}

bool StartDependentServices(ServiceHandle service, ServiceHandle manager) {
    Log3("\t Inside StartDependentServices() \n");
    return ForEachDependent("StartDependentServices", service, [&](const Task& task, std::uint64_t since) {
        return StartForDependent(task, service, manager, since);
    });
}

bool StopDependentServices(ServiceHandle service, ServiceHandle manager) {
    Log3("\t Inside StopDependentServices() \n");
    return ForEachDependent("StopDependentServices", service,
                            [&](const Task& task, std::uint64_t since) { return StopDependent(task, manager, since); });
}

bool WaitWhilePending(ServiceHandle service, ServiceState pending, ServiceStatus& status) {
    Log3("\t Inside WaitWhilePending() \n");
    std::uint64_t since = TickCount();
    std::uint32_t checkPoint = status.dwCheckPoint;
    while (status.dwCurrentState == pending) {
        platform::Clock().Sleep(std::clamp(status.dwWaitHint / 10, 1000U, 10000U));
        ServiceStatus now;
        if (const Error failure = ServiceManager().QueryServiceStatusEx(service, now)) {
            Log1("\t WaitWhilePending :: QueryServiceStatusEx failed (%d)\n", failure);
            return false;
        }
        status = now;
        if (status.dwCheckPoint > checkPoint) {
            since = TickCount();
            checkPoint = status.dwCheckPoint;
        } else if (TickCount() - since > std::min(status.dwWaitHint, longestHint)) {
            return status.dwCurrentState != pending;
        }
    }
    return true;
}

Error QueryAfterWaitHint(ServiceHandle service, ServiceStatus& status) {
    Log4("\t Inside QueryAfterWaitHint() \n");
    platform::Clock().Sleep(status.dwWaitHint == 0 ? pauseWithoutHint : std::min(status.dwWaitHint, longestHint));
    return ServiceManager().QueryServiceStatusEx(service, status);
}

}  // namespace kv

// The service manager, which installs, removes, asks, starts and stops the services of this computer.
//
// The caller opens handles and closes them with CloseServiceHandle (OwnedServiceHandle does). A handle belongs to one
// thread at a time, together with those opened through it. No operation waits for a service to change its state: the
// caller asks again and again. Names are compared without regard to case.
//
// Errors that every operation may give: accessDenied; rpcServerUnavailable where there is no service manager;
// serviceRequestTimeout where it does not answer; invalidHandle for a handle of 0.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/errors.h"
#include "platform/owned_handle.h"
#include "platform/seam.h"
#include "platform/service_status.h"

namespace platform {

/// The manager or one service, or 0.
using ServiceHandle = std::uintptr_t;

namespace manager_right {
inline constexpr std::uint32_t connect = 0x1;  // to look only
inline constexpr std::uint32_t createService = 0x2;
inline constexpr std::uint32_t all = 0xF003F;
}  // namespace manager_right

namespace service_right {
inline constexpr std::uint32_t queryStatus = 0x4;
inline constexpr std::uint32_t enumerateDependents = 0x8;
inline constexpr std::uint32_t start = 0x10;
inline constexpr std::uint32_t stop = 0x20;
inline constexpr std::uint32_t pauseAndContinue = 0x40;
inline constexpr std::uint32_t all = 0xF01FF;
}  // namespace service_right

enum class ServiceStartType : std::uint32_t { automatic = 2, onDemand = 3, disabled = 4 };
enum class ServiceErrorControl : std::uint32_t { ignore = 0, normal = 1 };

/// A service to be made; it runs as the system's own account.
struct ServiceDefinition {
    std::u16string name;
    std::u16string displayName;
    std::uint32_t type = service_type::ownProcess;
    ServiceStartType start = ServiceStartType::onDemand;
    ServiceErrorControl errorControl = ServiceErrorControl::normal;
    std::u16string binaryPath;                 // the program as the seam writes paths, in double quotes; no arguments
    std::vector<std::u16string> dependencies;  // services that have to run first
};

enum class RecoveryAction : std::uint32_t { none = 0, restart = 1 };
struct RecoveryStep {
    RecoveryAction action = RecoveryAction::none;
    std::uint32_t delayMilliseconds = 0;
};

/// What the manager does when the service ends without having been told to: the first step after the first failure, the
/// second after the second, and the last one after all that follow.
struct ServiceFailureActions {
    std::uint32_t resetPeriodSeconds = 0;  // without failure, after which the count starts again; neverReset: never
    std::vector<RecoveryStep> steps;
};
inline constexpr std::uint32_t neverReset = 0xFFFFFFFF;

struct DependentService {
    std::u16string name;
    ServiceStatus status;
};

struct ServiceManagerOperations {
    std::function<Error(std::uint32_t rights, ServiceHandle& manager)> OpenSCManagerW;

    /// serviceDoesNotExist, or invalidName for what cannot be the name of a service.
    std::function<Error(ServiceHandle manager, std::u16string_view name, std::uint32_t rights, ServiceHandle& service)>
        OpenServiceW;

    /// The names that mean this service and no other: its own, in each way in which it is written, and the given one
    /// when that becomes the own one. An alias is not among them. Nothing is opened. serviceDoesNotExist and
    /// invalidName where the system can tell at once.
    std::function<Error(ServiceHandle manager, std::u16string_view name, std::vector<std::u16string>& names)>
        ListServiceNames;

    /// Makes a service, started automatically or not, without starting it now. serviceExists. fileNotFound where the
    /// system looks for the program at once and does not find it.
    std::function<Error(ServiceHandle manager, const ServiceDefinition& definition, ServiceHandle& service)>
        CreateServiceW;

    /// Sets what follows a failure, of a service that this handle has made.
    std::function<Error(ServiceHandle service, const ServiceFailureActions& actions)> ChangeServiceConfig2W;

    /// Takes the service off the system's list. One that runs goes on until it is stopped. accessDenied for a service
    /// that another installer owns.
    std::function<Error(ServiceHandle service)> DeleteService;

    /// Asks for a start; afterwards the service is starting, or further. serviceAlreadyRunning where the system says
    /// so, serviceDisabled, badFormat for one that is described wrongly.
    std::function<Error(ServiceHandle service)> StartServiceW;

    /// Sends a control and gives the status that follows from it. dependentServicesRunning for a stop while others that
    /// run depend on the service, serviceNotActive for one that is stopped, invalidServiceControl for a control that it
    /// cannot take, serviceCannotAcceptControl while another one is pending.
    std::function<Error(ServiceHandle service, std::uint32_t control, ServiceStatus& status)> ControlService;

    std::function<Error(ServiceHandle service, ServiceStatus& status)> QueryServiceStatusEx;

    /// The services that depend on this one, directly or through others, and are not stopped, in the order in which
    /// they can be stopped. When they need more than the buffer size, in bytes: moreData, with the size in bytesNeeded
    /// and services left empty. Where nothing depends on the service, a buffer of 0 is enough.
    std::function<Error(ServiceHandle service, std::size_t bufferSize, std::vector<DependentService>& services,
                        std::size_t& bytesNeeded)>
        EnumDependentServicesW;

    std::function<void(ServiceHandle handle)> CloseServiceHandle;
};

inline const ServiceManagerOperations& ServiceManager() { return CurrentOperations<ServiceManagerOperations>(); }

inline void CloseService(ServiceHandle handle) { ServiceManager().CloseServiceHandle(handle); }
using OwnedServiceHandle = OwnedHandle<ServiceHandle, CloseService>;  // of the manager or of a service

}  // namespace platform

#include "agent/service_admin.h"

#include <cstdio>
#include <new>
#include <string>

#include "exchange/service_control.h"
#include "foundation/agent_state.h"
#include "foundation/log.h"
#include "foundation/system_error.h"
#include "foundation/time_utils.h"
#include "platform/clock.h"
#include "platform/messages.h"
#include "platform/system_facts.h"
#include "platform/utf.h"

namespace kv {

namespace {

using platform::Error;
using platform::OwnedServiceHandle;
using platform::RecoveryAction;
using platform::ServiceHandle;
using platform::ServiceManager;
using platform::ServiceState;
using platform::ServiceStatus;
using platform::error::success;

constexpr std::u16string_view servedAgentName = u"Corvinel Kestrova - Agent";  // the service that ours depends on
constexpr std::u16string_view programName = u"MonitoringAgent.exe";
constexpr std::uint32_t recoveryDelay = 10000;  // milliseconds
constexpr std::uint64_t stopLimit = 60000;      // milliseconds

/// Tells whoever runs "/i" or "/u" what came of it: the log cannot be seen at a console.
void TellOutcome(const char* deed, Error failure) {
    const std::string name = platform::Utf8FromWide(serviceName);
    if (failure == success) {
        std::printf("MonitoringAgent: the service %s is %s\n", name.c_str(), deed);
        return;
    }
    std::fprintf(stderr, "MonitoringAgent: the service %s cannot be %s: %s (error %u)\n", name.c_str(), deed,
                 platform::MessageInLine(failure).c_str(), failure);
}

/// Absent when memory ran out.
OptionalText QuotedProgramPath() {
    try {
        return u'"' + agentState.gv_ocAgentBinPath.value_or(u"").append(programName) + u'"';
    } catch (const std::bad_alloc&) {
        Log1("\t Install() :: calloc failed for ocAgentServicePath\n");
        return std::nullopt;
    }
}

platform::ServiceDefinition AgentDefinition(const std::u16string& binaryPath) {
    return {
        .name = std::u16string(serviceName),
        .displayName = std::u16string(serviceName),
        .type = platform::service_type::ownProcess | platform::service_type::interactive,
        .start = platform::ServiceStartType::automatic,
        .errorControl = platform::ServiceErrorControl::normal,
        .binaryPath = binaryPath,
        .dependencies = {std::u16string(servedAgentName)},
    };
}

Error SetFailureActions(ServiceHandle service) {
    const platform::ServiceFailureActions actions{
        .resetPeriodSeconds = platform::neverReset,
        .steps = {{RecoveryAction::restart, recoveryDelay},
                  {RecoveryAction::restart, recoveryDelay},
                  {RecoveryAction::none, recoveryDelay}},
    };
    const Error failure = ServiceManager().ChangeServiceConfig2W(service, actions);
    if (failure != success)
        Log1("Install: ChangeServiceConfig2() is Failed! Error: %d \n", failure);
    else
        Log2("Install: ChangeServiceConfig2() is Succeeded\n");
    return failure;
}

/// Why there is no service, or why its failure actions could not be set.
struct Creation {
    Error failure = success;
    Error recoveryFailure = success;
};

Creation CreateAgentService(const OwnedServiceHandle& manager) {
    const OptionalText binaryPath = QuotedProgramPath();
    if (!binaryPath) return {.failure = platform::error::notEnoughMemory};
    OwnedServiceHandle service;
    const Error failure = ServiceManager().CreateServiceW(manager.get(), AgentDefinition(*binaryPath), service.Place());
    if (failure != success) {
        Log1("\t Install() :: Create Service failure, error code = %d\n", failure);
        return {.failure = failure};
    }
    Log3("Service %s installed successfully\n", serviceName);
    return {.recoveryFailure = SetFailureActions(service.get())};
}

Error InstallService() {
    OwnedServiceHandle manager;
    if (const Error failure =
            ServiceManager().OpenSCManagerW(platform::manager_right::createService, manager.Place())) {
        Log1("OpenSCManager failed, errorCode = %d\n", failure);
        return failure;
    }
    const Creation creation = CreateAgentService(manager);
    if (creation.failure == success) Log1("Install: errorCode for OC Agent is %d\n", creation.recoveryFailure);
    if (creation.recoveryFailure != success)
        std::fprintf(stderr, "MonitoringAgent: it is not started again after a failure (error %u)\n",
                     creation.recoveryFailure);
    return creation.failure;
}

Error RemoveService() {
    OwnedServiceHandle manager;
    if (const Error failure = ServiceManager().OpenSCManagerW(platform::manager_right::all, manager.Place())) {
        Log1("\t UnInstall() :: OpenSCManager failed, error code = %d\n", failure);
        return failure;
    }
    OwnedServiceHandle service;
    if (const Error failure =
            ServiceManager().OpenServiceW(manager.get(), serviceName, platform::service_right::all, service.Place())) {
        Log1("\t UnInstall() :: OpenService failed, error code = %d\n", failure);
        return failure;
    }
    if (const Error failure = ServiceManager().DeleteService(service.get())) {
        Log1("\t UnInstall() :: Failed to delete service %s\n", serviceName);
        LogLastSystemError(failure);
        return failure;
    }
    Log1("\t UnInstall() :: service %s removed\n", serviceName);
    return success;
}

/// Opens a service with all rights. Lines about what fails begin with the operation.
Error OpenWithAllRights(const char* operation, std::u16string_view name, OwnedServiceHandle& manager,
                        OwnedServiceHandle& service) {
    if (const Error failure = ServiceManager().OpenSCManagerW(platform::manager_right::all, manager.Place())) {
        Log1("%s : Failed to open the ServiceControl Manager of This Computer :%d \n", operation, failure);
        return failure;
    }
    const Error failure =
        ServiceManager().OpenServiceW(manager.get(), name, platform::service_right::all, service.Place());
    if (failure != success) Log1("%s : Failed to open the %s Service :%d \n", operation, name, failure);
    return failure;
}

/// Starts an opened service and waits while it makes progress. Success, or the error of the query that gave no status.
Error StartAndWait(ServiceHandle service, ServiceStatus& status) {
    // The first of these lines would fit the other case; people who read the log know it here.
    if (const Error failure = ServiceManager().StartServiceW(service)) {
        Log2("StartingService : Service Started Successfully .\n");
        Log1("StartingService : StartServiceW failed (%d)\n", failure);
    } else {
        Log3("StartingService : Service start pending.\n");
    }
    if (const Error failure = ServiceManager().QueryServiceStatusEx(service, status)) {
        Log1("StartingService : QueryServiceStatusEx failed (%d)\n", failure);
        return failure;
    }
    WaitWhilePending(service, ServiceState::startPending, status);
    return success;
}

std::uint32_t ReportNotStarted(const ServiceStatus& status) {
    const auto state = static_cast<std::uint32_t>(status.dwCurrentState);
    Log2("StartingService : Service not started. \n");
    Log2("StartingService : Current State: %d\n", state);
    Log2("StartingService : Exit Code: %d\n", status.dwWin32ExitCode);
    Log2("StartingService : Service Specific Exit Code: %d\n", status.dwServiceSpecificExitCode);
    Log2("StartingService : Check Point: %d\n", status.dwCheckPoint);
    Log2("StartingService : Wait Hint: %d\n", status.dwWaitHint);
    // One would expect the exit code here; callers know the state.
    return state == platform::error::serviceSpecificError ? status.dwServiceSpecificExitCode : state;
}

/// The wait for the end of the agent's own service.
struct StopWait {
    ServiceHandle service = 0;
    std::uint64_t since = 0;
    ServiceStatus status = {};
};

void LogFailedQuery(Error failure) { Log1("StopService: QueryServiceStatusEx failed (%d)\n", failure); }

/// Asks again; false, with a line, when there is nothing left to wait for.
bool GoesOn(StopWait& wait, const char* stopped, const char* timedOut) {
    if (const Error failure = QueryAfterWaitHint(wait.service, wait.status)) {
        LogFailedQuery(failure);
        return false;
    }
    if (wait.status.dwCurrentState == ServiceState::stopped) {
        Log2(stopped);
        return false;
    }
    if (platform::Clock().GetTickCount64() - wait.since <= stopLimit) return true;
    Log1(timedOut);
    return false;
}

void StopOpened(StopWait& wait) {
    if (const Error failure = ServiceManager().QueryServiceStatusEx(wait.service, wait.status))
        return LogFailedQuery(failure);
    if (wait.status.dwCurrentState == ServiceState::stopped) {
        Log1("StopService: Service is already stopped.\n");
        return;
    }
    while (wait.status.dwCurrentState == ServiceState::stopPending) {
        Log3("StopService: Service stop pending...\n");
        if (!GoesOn(wait, "StopService: Service stopped successfully.\n", "StopService: Service stop timed out.\n"))
            return;
    }
    if (const Error failure =
            ServiceManager().ControlService(wait.service, platform::service_control::stop, wait.status)) {
        Log1("StopService: ControlService failed (%d)\n", failure);
        return;
    }
    constexpr const char* stopped = "StopService: Service stopped successfully\n";
    if (wait.status.dwCurrentState == ServiceState::stopped) {
        Log2(stopped);
        return;
    }
    while (GoesOn(wait, stopped, "StopService: Wait timed out\n")) continue;
}

}  // namespace

void Install() {
    Log3("\t Inside Install() \n");
    TellOutcome("installed", InstallService());
}

void UnInstall() {
    Log3("\t Inside UnInstall() \n");
    TellOutcome("removed", RemoveService());
}

std::uint32_t StartingService(std::u16string_view name) {
    Log3("\t Inside StartingService() \n");
    OwnedServiceHandle manager;
    ServiceStatus status;
    {
        OwnedServiceHandle service;
        if (const Error failure = OpenWithAllRights("StartingService", name, manager, service)) return failure;
        if (const Error failure = StartAndWait(service.get(), status)) return failure;
    }
    if (status.dwCurrentState != ServiceState::running) return ReportNotStarted(status);
    Log2("StartingService : StartService SUCCESS.\n");
    return success;
}

void StopService() {
    Log3("\t Inside StopService() \n");
    StopWait wait{.since = platform::Clock().GetTickCount64()};
    {
        OwnedServiceHandle manager;
        OwnedServiceHandle service;
        if (OpenWithAllRights("StopService", serviceName, manager, service) != success) return;
        wait.service = service.get();
        StopOpened(wait);
    }
    Log2("StopService: Closing service handles\n");
}

void RestartService() {
    Log2("Restart Service: About to stop service\n");
    StopService();
    Log2("Restart Service: About to restart service\n");
    StartingService(serviceName);
}

bool IsWin2kOS() {
    Log3("\t Inside IsWin2kOS() \n");
    platform::SystemVersion version;
    const int isKnown = platform::SystemFacts().GetVersionExW(version) == success ? 1 : 0;
    Log1("\tbOsVersionInfoEx value is %d \n", isKnown);
    if (const Error failure = platform::SystemFacts().GetVersionExW(version)) {
        Log1("\tIsWin2kOS : Problem in identifying the operating system due to the following error !!!\n");
        LogLastSystemError(failure);
        return false;
    }
    if (version.family != platform::SystemFamily::nt || version.major <= 4) {
        Log1("\t IsWin2kOS : Problem in identifying the operating system !!!\n");
        return true;
    }
    const bool isWin2k = version.major == 5 && version.minor == 0;
    if (isWin2k) Log3("\t %s IsWin2kOS : Windows 2000 Operating system. \n", GetTimeString(1));
    return isWin2k;
}

}  // namespace kv

#include <atomic>
#include <cstdlib>

#include "platform/guarded.h"
#include "platform/windows/win32.h"

namespace platform {

namespace {

/// The system passes no context of the caller's to the main routine, so the service is kept here. A process has one.
struct Service {
    ServiceMainRoutine main = nullptr;
    ServiceHandlerRoutine handler = nullptr;
    std::atomic<std::uint32_t> accepted{0};  // of the last report
    std::atomic<bool> stopping{false};       // reported, as the next is
    std::atomic<bool> hasStopped{false};     // and the manager knows it
};

Service& TheService() {
    static Service service;
    return service;
}

/// The system waits for a report of the end and not for the routine to return: a service that has given up its start
/// would stay forever. When the process ends without the report, the manager takes it for a failure. Other threads may
/// still work, so nothing static is destroyed under them. An exception ends the program, as out of any thread.
void WINAPI RunServiceMain(DWORD, LPWSTR*) noexcept {
    TheService().main();
    if (!TheService().hasStopped) std::_Exit(0);
}

/// True when the service has said that it accepts the control. An interrogation and the service's own controls are
/// always accepted.
bool Accepts(std::uint32_t accepted, DWORD control) {
    switch (control) {
        case SERVICE_CONTROL_STOP:
            return (accepted & service_accepts::stop) != 0;
        case SERVICE_CONTROL_PAUSE:
        case SERVICE_CONTROL_CONTINUE:
            return (accepted & service_accepts::pauseAndContinue) != 0;
        case SERVICE_CONTROL_SHUTDOWN:
            return (accepted & service_accepts::shutdown) != 0;
        case SERVICE_CONTROL_SESSIONCHANGE:
            return (accepted & service_accepts::sessionChange) != 0;
        default:
            return true;
    }
}

/// The manager passes on only what is accepted, but a control may have been on its way when the status changed. An
/// exception must not reach the system's own frames: it ends the program.
DWORD WINAPI HandleControl(DWORD control, DWORD eventType, void* eventData, void* context) noexcept {
    const Service& service = TheService();
    if (service.stopping || !Accepts(service.accepted, control)) {
        return control == SERVICE_CONTROL_INTERROGATE ? NO_ERROR : DWORD{ERROR_SERVICE_CANNOT_ACCEPT_CTRL};
    }
    return service.handler(control, eventType, eventData, context);
}

Error StartServiceCtrlDispatcherW(std::u16string_view serviceName, ServiceMainRoutine serviceMain) {
    TheService().main = serviceMain;
    std::wstring name = WideOf(serviceName);
    const SERVICE_TABLE_ENTRYW services[] = {{name.data(), RunServiceMain}, {nullptr, nullptr}};
    return ResultOf(::StartServiceCtrlDispatcherW(services));
}

Error RegisterServiceCtrlHandlerExW(std::u16string_view serviceName, ServiceHandlerRoutine handler, void* context,
                                    ServiceStatusHandle& handle) {
    handle = 0;
    TheService().handler = handler;
    handle = reinterpret_cast<ServiceStatusHandle>(
        ::RegisterServiceCtrlHandlerExW(WideOf(serviceName).c_str(), HandleControl, context));
    return ResultOf(handle != 0);
}

Error SetServiceStatus(ServiceStatusHandle handle, const ServiceStatus& status) {
    Service& service = TheService();
    service.accepted = status.dwControlsAccepted;
    if (status.dwCurrentState == ServiceState::stopPending || status.dwCurrentState == ServiceState::stopped)
        service.stopping = true;
    SERVICE_STATUS report{.dwServiceType = status.dwServiceType,
                          .dwCurrentState = static_cast<DWORD>(status.dwCurrentState),
                          .dwControlsAccepted = status.dwControlsAccepted,
                          .dwWin32ExitCode = status.dwWin32ExitCode,
                          .dwServiceSpecificExitCode = status.dwServiceSpecificExitCode,
                          .dwCheckPoint = status.dwCheckPoint,
                          .dwWaitHint = status.dwWaitHint};
    const Error result = ResultOf(::SetServiceStatus(reinterpret_cast<SERVICE_STATUS_HANDLE>(handle), &report));
    if (result == error::success && status.dwCurrentState == ServiceState::stopped) service.hasStopped = true;
    return result;
}

}  // namespace

ServiceHostOperations WindowsServiceHost() {
    return {.StartServiceCtrlDispatcherW = Guarded(StartServiceCtrlDispatcherW),
            .RegisterServiceCtrlHandlerExW = Guarded(RegisterServiceCtrlHandlerExW),
            .SetServiceStatus = SetServiceStatus,
            .SetStatusText = [](ServiceStatusHandle, std::string_view) { return error::success; }};
}

}  // namespace platform

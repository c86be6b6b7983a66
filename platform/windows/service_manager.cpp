#include <algorithm>
#include <cstddef>
#include <memory>

#include "platform/backend.h"
#include "platform/guarded.h"
#include "platform/windows/win32.h"

namespace platform {

namespace {

/// The system takes no larger buffer than this.
constexpr std::size_t largestBuffer = 256 * 1024;

SC_HANDLE SystemServiceOf(ServiceHandle handle) { return reinterpret_cast<SC_HANDLE>(handle); }

/// The handle that a call gave, or why it failed.
Error Take(SC_HANDLE given, ServiceHandle& handle) {
    handle = reinterpret_cast<ServiceHandle>(given);
    return ResultOf(given != nullptr);
}

template <class SystemStatus>
ServiceStatus StatusOf(const SystemStatus& status) {
    return {.dwServiceType = status.dwServiceType,
            .dwCurrentState = static_cast<ServiceState>(status.dwCurrentState),
            .dwControlsAccepted = status.dwControlsAccepted,
            .dwWin32ExitCode = status.dwWin32ExitCode,
            .dwServiceSpecificExitCode = status.dwServiceSpecificExitCode,
            .dwCheckPoint = status.dwCheckPoint,
            .dwWaitHint = status.dwWaitHint};
}

Error OpenSCManagerW(std::uint32_t rights, ServiceHandle& manager) {
    return Take(::OpenSCManagerW(nullptr, SERVICES_ACTIVE_DATABASEW, rights), manager);
}

/// The system would take the part before the zero for the whole.
bool HoldsZero(std::u16string_view name) { return name.find(u'\0') != name.npos; }

Error OpenServiceW(ServiceHandle manager, std::u16string_view name, std::uint32_t rights, ServiceHandle& service) {
    service = 0;
    if (HoldsZero(name)) return error::invalidName;
    return Take(::OpenServiceW(SystemServiceOf(manager), WideOf(name).c_str(), rights), service);
}

/// A service has a single name here, by which alone it is opened.
Error ListServiceNames(ServiceHandle, std::u16string_view name, std::vector<std::u16string>& names) {
    names.clear();
    if (HoldsZero(name)) return error::invalidName;
    names.emplace_back(name);
    return error::success;
}

/// Texts one after the other, each followed by a zero, and one more zero at the end.
std::wstring TextListOf(const std::vector<std::u16string>& texts) {
    std::wstring list;
    for (const std::u16string& text : texts) list += WideOf(text) + L'\0';
    return list + L'\0';
}

/// An empty text would end the list before the others.
bool IsListable(const std::u16string& text) { return !text.empty() && !HoldsZero(text); }

Error CreateServiceW(ServiceHandle manager, const ServiceDefinition& definition, ServiceHandle& service) {
    service = 0;
    if (HoldsZero(definition.name)) return error::invalidName;
    const auto& dependencies = definition.dependencies;
    if (!std::all_of(dependencies.begin(), dependencies.end(), IsListable)) return error::invalidParameter;
    return Take(::CreateServiceW(SystemServiceOf(manager), WideOf(definition.name).c_str(),
                                 WideOf(definition.displayName).c_str(), SERVICE_ALL_ACCESS, definition.type,
                                 static_cast<DWORD>(definition.start), static_cast<DWORD>(definition.errorControl),
                                 WideOf(definition.binaryPath).c_str(), nullptr, nullptr,
                                 TextListOf(dependencies).c_str(), nullptr, nullptr),
                service);
}

Error ChangeServiceConfig2W(ServiceHandle service, const ServiceFailureActions& actions) {
    std::vector<SC_ACTION> steps;
    for (const RecoveryStep& step : actions.steps)
        steps.push_back({.Type = static_cast<SC_ACTION_TYPE>(step.action), .Delay = step.delayMilliseconds});
    wchar_t nothing[] = L"";
    SERVICE_FAILURE_ACTIONSW recovery{.dwResetPeriod = actions.resetPeriodSeconds,
                                      .lpRebootMsg = nothing,
                                      .lpCommand = nullptr,
                                      .cActions = static_cast<DWORD>(steps.size()),
                                      .lpsaActions = steps.data()};
    return ResultOf(::ChangeServiceConfig2W(SystemServiceOf(service), SERVICE_CONFIG_FAILURE_ACTIONS, &recovery));
}

Error ControlService(ServiceHandle service, std::uint32_t control, ServiceStatus& status) {
    SERVICE_STATUS given{};
    const Error result = ResultOf(::ControlService(SystemServiceOf(service), control, &given));
    // After a refusal there may be anything in the record.
    if (result == error::success) status = StatusOf(given);
    return result;
}

Error QueryServiceStatusEx(ServiceHandle service, ServiceStatus& status) {
    SERVICE_STATUS_PROCESS given{};
    DWORD needed = 0;
    const Error result = ResultOf(::QueryServiceStatusEx(SystemServiceOf(service), SC_STATUS_PROCESS_INFO,
                                                         reinterpret_cast<BYTE*>(&given), sizeof given, &needed));
    if (result == error::success) status = StatusOf(given);
    return result;
}

Error EnumDependentServicesW(ServiceHandle service, std::size_t bufferSize, std::vector<DependentService>& services,
                             std::size_t& bytesNeeded) {
    services.clear();
    bufferSize = std::min(bufferSize, largestBuffer);
    // The records are followed by the texts that they point to, so there is room for both.
    const auto buffer = std::make_unique<std::max_align_t[]>(bufferSize / sizeof(std::max_align_t) + 1);
    auto* const found = reinterpret_cast<ENUM_SERVICE_STATUSW*>(buffer.get());
    DWORD needed = 0;
    DWORD count = 0;
    const Error result = ResultOf(::EnumDependentServicesW(SystemServiceOf(service), SERVICE_ACTIVE, found,
                                                           static_cast<DWORD>(bufferSize), &needed, &count));
    bytesNeeded = needed;
    for (DWORD at = 0; result == error::success && at < count; ++at)
        services.push_back(
            {.name = Utf16FromWide(found[at].lpServiceName), .status = StatusOf(found[at].ServiceStatus)});
    return result;
}

}  // namespace

ServiceManagerOperations WindowsServiceManager() {
    return {
        .OpenSCManagerW = OpenSCManagerW,
        .OpenServiceW = Guarded(OpenServiceW),
        .ListServiceNames = Guarded(ListServiceNames),
        .CreateServiceW = Guarded(CreateServiceW),
        .ChangeServiceConfig2W = Guarded(ChangeServiceConfig2W),
        .DeleteService = [](ServiceHandle service) { return ResultOf(::DeleteService(SystemServiceOf(service))); },
        .StartServiceW =
            [](ServiceHandle service) { return ResultOf(::StartServiceW(SystemServiceOf(service), 0, nullptr)); },
        .ControlService = ControlService,
        .QueryServiceStatusEx = QueryServiceStatusEx,
        .EnumDependentServicesW = Guarded(EnumDependentServicesW),
        .CloseServiceHandle = [](ServiceHandle handle) { ::CloseServiceHandle(SystemServiceOf(handle)); },
    };
}

void InstallServices() {
    CurrentOperations<ServiceHostOperations>() = WindowsServiceHost();
    CurrentOperations<ServiceManagerOperations>() = WindowsServiceManager();
}

}  // namespace platform

// This process as a service.
//
// The dispatcher owns the thread that enters it: it calls the service's main routine on another thread, and the handler
// on its own, one control after another. A control that the last reported status does not accept is never delivered,
// nor is any once the service has reported that it is stopping.
#pragma once

#include <cstdint>
#include <functional>
#include <string_view>

#include "platform/errors.h"
#include "platform/seam.h"
#include "platform/service_status.h"

namespace platform {

using ServiceMainRoutine = void (*)();
using ServiceHandlerRoutine = std::uint32_t (*)(std::uint32_t control, std::uint32_t eventType, void* eventData,
                                                void* context);

/// The service as its status is reported, or 0. Never closed.
using ServiceStatusHandle = std::uintptr_t;

struct ServiceHostOperations {
    /// Hands this thread to the service manager for the whole life of the service, until its main routine has returned.
    /// serviceControllerConnect at once when no service manager started this process. Called before any other thread is
    /// started.
    std::function<Error(std::u16string_view serviceName, ServiceMainRoutine serviceMain)> StartServiceCtrlDispatcherW;

    /// Called once, from the service's main routine. serviceDoesNotExist when no dispatcher runs for that name.
    std::function<Error(std::u16string_view serviceName, ServiceHandlerRoutine handler, void* context,
                        ServiceStatusHandle& handle)>
        RegisterServiceCtrlHandlerExW;

    /// Reports a status, from any thread.
    std::function<Error(ServiceStatusHandle handle, const ServiceStatus& status)> SetServiceStatus;

    /// Tells the manager, for people, how a running service is: one line in UTF-8, from any thread. It stands beside
    /// the state until the next line or state; one that comes while the service is in any other state than running is
    /// told when it runs again. Windows has no place for it, and nothing is done.
    std::function<Error(ServiceStatusHandle handle, std::string_view text)> SetStatusText;
};

inline const ServiceHostOperations& ServiceHost() { return CurrentOperations<ServiceHostOperations>(); }

}  // namespace platform

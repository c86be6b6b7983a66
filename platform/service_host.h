// This process as a service.
#pragma once

#include <functional>
#include <string_view>

#include "platform/errors.h"
#include "platform/seam.h"

namespace platform {

using ServiceMainRoutine = void (*)();

struct ServiceHostOperations {
    /// Hands this thread to the service manager for the whole life of the service. serviceControllerConnect at once
    /// when no service manager started this process.
    std::function<Error(std::u16string_view serviceName, ServiceMainRoutine serviceMain)> StartServiceCtrlDispatcherW;
};

inline const ServiceHostOperations& ServiceHost() { return CurrentOperations<ServiceHostOperations>(); }

}  // namespace platform

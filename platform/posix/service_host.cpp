#include "platform/posix/posix.h"

namespace platform {

ServiceHostOperations PosixServiceHost() {
    // Being started by the service manager is not built yet: the program is always told that none started it.
    return {.StartServiceCtrlDispatcherW = [](std::u16string_view,
                                              ServiceMainRoutine) { return error::serviceControllerConnect; },
            .RegisterServiceCtrlHandlerExW = {},
            .SetServiceStatus = {}};
}

}  // namespace platform

#include "platform/windows/win32.h"

namespace platform {

ServiceManagerOperations WindowsServiceManager() { return {}; }

}  // namespace platform

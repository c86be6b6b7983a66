#include "platform/windows/win32.h"

namespace platform {

ServiceHostOperations WindowsServiceHost() { return {}; }

}  // namespace platform

#include "platform/windows/win32.h"

namespace platform {

SocketOperations WindowsSockets() { return {}; }

}  // namespace platform

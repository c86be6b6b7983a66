#include "platform/windows/win32.h"

namespace platform {

ThreadOperations WindowsThreads() { return {}; }

}  // namespace platform

#include "platform/windows/win32.h"

namespace platform {

ProcessOperations WindowsProcesses() { return {}; }

}  // namespace platform

#include "platform/windows/win32.h"

namespace platform {

WmiOperations WindowsWmi() { return {}; }

}  // namespace platform

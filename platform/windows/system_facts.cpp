#include "platform/windows/win32.h"

namespace platform {

SystemFactOperations WindowsSystemFacts() { return {}; }

}  // namespace platform

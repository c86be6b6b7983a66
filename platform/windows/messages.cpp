#include "platform/windows/win32.h"

namespace platform {

MessageOperations WindowsMessages() { return {}; }

}  // namespace platform

#include "platform/windows/win32.h"

namespace platform {

RegistryOperations WindowsRegistry() { return {}; }

}  // namespace platform

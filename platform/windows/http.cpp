#include "platform/windows/win32.h"

namespace platform {

HttpOperations WindowsHttp() { return {}; }

}  // namespace platform

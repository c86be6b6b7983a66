#include "platform/windows/win32.h"

namespace platform {

FileOperations WindowsFiles() { return {}; }

}  // namespace platform

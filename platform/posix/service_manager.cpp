#include "platform/posix/posix.h"

namespace platform {

ServiceManagerOperations PosixServiceManager() { return {}; }

}  // namespace platform

#include "platform/windows/win32.h"

namespace platform {

CryptoOperations WindowsCrypto() { return {}; }

}  // namespace platform

#include "platform/memory.h"

#include <malloc.h>

namespace platform {

void ReleaseFreeMemory() { _heapmin(); }

void TrimResidentLibraryPages() {}

}  // namespace platform

// A file descriptor that is closed at the end of its scope.
#pragma once

#include <unistd.h>

#include "platform/owned_handle.h"

namespace platform {

inline int CloseDescriptor(int descriptor) { return close(descriptor); }

/// A file, pipe or socket; -1 for no descriptor.
using Descriptor = OwnedHandle<int, CloseDescriptor, -1>;

}  // namespace platform

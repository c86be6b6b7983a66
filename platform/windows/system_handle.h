// A handle of the system's that is closed at the end of its scope.
#pragma once

#include "platform/owned_handle.h"
#include "platform/windows/win32.h"

namespace platform {

inline BOOL CloseSystemHandle(HANDLE handle) { return ::CloseHandle(handle); }
using SystemHandle = OwnedHandle<HANDLE, CloseSystemHandle>;

/// The owner of a new file handle. The routines that open files say by INVALID_HANDLE_VALUE that they have not.
inline SystemHandle OwnedFile(HANDLE file) { return SystemHandle(file == INVALID_HANDLE_VALUE ? nullptr : file); }

}  // namespace platform

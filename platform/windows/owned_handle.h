// A handle of the system's that is closed with its owner.
#pragma once

#include <utility>

#include "platform/windows/win32.h"

namespace platform {

/// Owns a handle, or none. Both of the values by which the system says that there is none count as none.
class OwnedHandle {
  public:
    OwnedHandle() = default;
    explicit OwnedHandle(HANDLE handle) : handle_(handle == INVALID_HANDLE_VALUE ? nullptr : handle) {}
    OwnedHandle(OwnedHandle&& other) noexcept : handle_(other.Release()) {}
    OwnedHandle& operator=(OwnedHandle&& other) noexcept {
        std::swap(handle_, other.handle_);
        return *this;
    }
    ~OwnedHandle() {
        if (handle_ != nullptr) ::CloseHandle(handle_);
    }

    explicit operator bool() const { return handle_ != nullptr; }
    HANDLE Get() const { return handle_; }

    /// The handle, which the caller owns from now on.
    HANDLE Release() { return std::exchange(handle_, nullptr); }

  private:
    HANDLE handle_ = nullptr;
};

}  // namespace platform

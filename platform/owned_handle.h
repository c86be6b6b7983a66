// Owners: what is open is closed at the end of its scope. Each costs as much as the bare handle or pointer.
//
// The handles of the seam have their owners beside them: OwnedRegistryKey in platform/registry.h, and so on. An owner
// belongs to one thread at a time.
#pragma once

#include <utility>

namespace platform {

/// Owns a handle that closeRoutine closes. nullHandle stands for no handle and is never closed.
template <class Handle, auto closeRoutine, Handle nullHandle = Handle{}>
class OwnedHandle {
  public:
    OwnedHandle() = default;
    explicit OwnedHandle(Handle handle) : handle_(handle) {}
    OwnedHandle(OwnedHandle&& other) noexcept : handle_(other.Release()) {}
    OwnedHandle& operator=(OwnedHandle&& other) noexcept {
        if (this != &other) {
            Close();
            handle_ = other.Release();
        }
        return *this;
    }
    ~OwnedHandle() { Close(); }

    explicit operator bool() const { return handle_ != nullHandle; }

    /// The handle, which stays owned here; nullHandle when there is none.
    Handle get() const { return handle_; }

    /// Where an operation puts the handle that it opens. What is open here is closed first.
    Handle& Place() {
        Close();
        return handle_;
    }

    /// The handle, which is the caller's from now on.
    [[nodiscard]] Handle Release() { return std::exchange(handle_, nullHandle); }

    /// Closes the handle before the end of the scope. What closeRoutine returns; 0 when there is nothing to close.
    auto Close() {
        using Result = decltype(closeRoutine(handle_));
        const Handle closing = Release();
        return closing == nullHandle ? Result() : closeRoutine(closing);
    }

  private:
    Handle handle_ = nullHandle;
};

/// For std::unique_ptr: gives a library's object back by the library's own routine.
template <auto releaseRoutine>
struct ReleasedBy {
    template <class T>
    void operator()(T* object) const {
        releaseRoutine(object);
    }
};

}  // namespace platform

// The memory that the process holds without needing it. Callable from any thread.
#pragma once

#include <cstddef>

namespace platform {

/// Gives memory that was freed back to the system, of all threads' heaps. The allocator keeps it otherwise, whatever
/// its amount, behind any small piece that is still in use.
void ReleaseFreeMemory();

/// From this size on a piece of work is worth it. The everyday ones, polls and records of some kilobytes, are not.
inline constexpr std::size_t largePieceBytes = std::size_t{1} << 20;

/// To be called when a piece of work is done and its memory freed; does nothing after a small one.
inline void ReleaseFreeMemoryAfter(std::size_t pieceBytes) {
    if (pieceBytes >= largePieceBytes) ReleaseFreeMemory();
}

/// The same at the end of its scope. Made before whatever holds the piece, so that it ends after it.
struct MemoryReleaseAtEnd {
    std::size_t pieceBytes = 0;

    MemoryReleaseAtEnd() = default;
    MemoryReleaseAtEnd(const MemoryReleaseAtEnd&) = delete;
    MemoryReleaseAtEnd& operator=(const MemoryReleaseAtEnd&) = delete;
    ~MemoryReleaseAtEnd() { ReleaseFreeMemoryAfter(pieceBytes); }
};

}  // namespace platform

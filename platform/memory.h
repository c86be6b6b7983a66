// The memory that the process holds without needing it. Callable from any thread.
#pragma once

#include <cstddef>

namespace platform {

/// Gives the freed memory of all threads back to the system. Otherwise the allocator keeps it, however much, as long as
/// some small piece after it is in use.
void ReleaseFreeMemory();

/// Gives back the pages of code and constants of the program and all loaded libraries that are unchanged from their
/// files. At its next use a page comes from the page cache or the file again; other threads may run meanwhile. A page
/// that was written to, by the loader or for a breakpoint, stays. Does nothing in a process that is traced, nor on
/// Windows, which trims idle processes by itself.
/// Called after work that needs much code once in a while, such as an HTTP transaction.
void TrimResidentLibraryPages();

/// From this size on it pays. Everyday work, polls and records of some kilobytes, is smaller.
inline constexpr std::size_t largePieceBytes = std::size_t{1} << 20;

/// Call it when a piece of work is done and its memory freed. Does nothing after a small one.
inline void ReleaseFreeMemoryAfter(std::size_t pieceBytes) {
    if (pieceBytes >= largePieceBytes) ReleaseFreeMemory();
}

/// The same at the end of its scope. Declare it before what holds the piece, so that it ends after it.
struct MemoryReleaseAtEnd {
    std::size_t pieceBytes = 0;

    MemoryReleaseAtEnd() = default;
    MemoryReleaseAtEnd(const MemoryReleaseAtEnd&) = delete;
    MemoryReleaseAtEnd& operator=(const MemoryReleaseAtEnd&) = delete;
    ~MemoryReleaseAtEnd() { ReleaseFreeMemoryAfter(pieceBytes); }
};

}  // namespace platform

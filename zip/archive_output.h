// What an archive is written to: a file, buffered, so that thousands of small entries cost few system calls; or a block
// of memory. Both can be written again over what has been written.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>

#include "foundation/open_file.h"
#include "zip/zip_cipher.h"
#include "zip/zip_result.h"

namespace kv {

/// What is at an offset below `written` is in the file, the `used` bytes from there on are in the buffer. Offsets are
/// those of the file, in which the archive may begin anywhere. Memory is one buffer for the whole archive.
struct ArchiveOutput {
    OpenFile ownFile;                       // when made by path
    platform::FileHandle file = 0;          // what is written; none for memory
    std::uint64_t written = 0;              // at first where the archive begins
    std::size_t used = 0;                   // bytes
    std::span<std::uint8_t> buffer;         // of a file made at first use
    std::unique_ptr<std::uint8_t[]> owned;  // what the buffer lies in, unless it is the caller's
    std::optional<ZipCipher> cipher;        // what is appended from now on is encrypted with it

    std::uint64_t position() const { return written + used; }
    bool isMemory() const { return file == 0; }
};

// The routines below give writeFailed when the file cannot be written, which leaves the system's error in the log, or
// would outgrow the offsets of an archive; memoryTooSmall when the memory is full.

/// Writes out the buffer, and brings a file of its own to the disk itself.
[[nodiscard]] ZipResult FlushToDisk(ArchiveOutput& output);

/// Writes out the buffer when it is so full that a small entry might not fit behind what is in it. An entry that stays
/// in the buffer until it is complete gets its header completed there.
[[nodiscard]] ZipResult MakeRoomForEntry(ArchiveOutput& output);

/// Appends bytes.
[[nodiscard]] ZipResult Append(ArchiveOutput& output, std::span<const std::uint8_t> bytes);

/// Room to append to in place, never empty on success; CommitSpace says how much of it was filled.
[[nodiscard]] ZipResult FreeSpace(ArchiveOutput& output, std::span<std::uint8_t>& space);
void CommitSpace(ArchiveOutput& output, std::size_t size);

/// Writes over bytes appended earlier; the position stays.
[[nodiscard]] ZipResult Rewrite(ArchiveOutput& output, std::uint64_t offset, std::span<const std::uint8_t> bytes);

}  // namespace kv

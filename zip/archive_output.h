// What an archive is written to: a file, buffered, so that thousands of small entries cost few system calls, or a block
// of memory. What has been written can be written over. It belongs to one thread.
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

/// What lies below the offset `written` is in the file, the `used` bytes from there on are in the buffer. Offsets are
/// those of the file, in which the archive may begin anywhere. Memory is one buffer for the whole archive.
struct ArchiveOutput {
    OpenFile ownFile;                       // when made by path
    platform::FileHandle file = 0;          // what is written; 0 for memory
    std::uint64_t written = 0;              // bytes in the file; at first where the archive begins
    std::size_t used = 0;                   // bytes
    std::span<std::uint8_t> buffer;         // of a file: made at first use
    std::unique_ptr<std::uint8_t[]> owned;  // holds the buffer, unless that is the caller's
    std::optional<ZipCipher> cipher;        // encrypts what is appended from now on

    std::uint64_t position() const { return written + used; }
    bool isMemory() const { return file == 0; }
};

// The routines below give writeFailed when the file cannot be written, with the system's error in the log, or would
// outgrow the offsets of an archive; memoryTooSmall when the memory is full. FreeSpace and Append throw std::bad_alloc
// when the buffer of a file cannot be made.

/// Writes out the buffer. A file made by path is brought to the disk itself.
[[nodiscard]] ZipResult FlushToDisk(ArchiveOutput& output);

/// Writes out the buffer when it is so full that a small entry might not fit: the header of an entry that is still in
/// the buffer when it is complete can be completed there.
[[nodiscard]] ZipResult MakeRoomForEntry(ArchiveOutput& output);

/// Appends bytes. After a failure some of them may have been appended.
[[nodiscard]] ZipResult Append(ArchiveOutput& output, std::span<const std::uint8_t> bytes);

/// Room to append to in place, never empty on success; CommitSpace then says how much of it was filled.
[[nodiscard]] ZipResult FreeSpace(ArchiveOutput& output, std::span<std::uint8_t>& space);
void CommitSpace(ArchiveOutput& output, std::size_t size);

/// Writes over bytes that were all appended earlier; the position stays.
[[nodiscard]] ZipResult Rewrite(ArchiveOutput& output, std::uint64_t offset, std::span<const std::uint8_t> bytes);

}  // namespace kv

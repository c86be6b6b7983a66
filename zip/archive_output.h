// The file that an archive is written to: buffered, so that thousands of small entries cost few system calls, and able
// to write again over what has been written.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

#include "foundation/open_file.h"
#include "zip/zip_result.h"

namespace kv {

/// What is at an offset below `written` is in the file, the `used` bytes from there on are in the buffer.
struct ArchiveOutput {
    OpenFile file;
    std::uint64_t written = 0;
    std::size_t used = 0;
    std::vector<std::uint8_t> buffer;

    std::uint64_t position() const { return written + used; }
};

// The routines below give writeFailed when the file cannot be written, which leaves the system's error in the log, or
// would outgrow the offsets of an archive.

/// Writes out the buffer.
ZipResult FlushOutput(ArchiveOutput& output);

/// Writes out the buffer and brings the file to the disk itself.
ZipResult FlushToDisk(ArchiveOutput& output);

/// Writes out the buffer when it is so full that a small entry might not fit behind what is in it. An entry that stays
/// in the buffer until it is complete gets its header completed there.
ZipResult MakeRoomForEntry(ArchiveOutput& output);

/// Appends bytes.
ZipResult Append(ArchiveOutput& output, std::span<const std::uint8_t> bytes);

/// Room to append to in place, never empty on success; CommitSpace says how much of it was filled.
ZipResult FreeSpace(ArchiveOutput& output, std::span<std::uint8_t>& space);
void CommitSpace(ArchiveOutput& output, std::size_t size);

/// Writes over bytes appended earlier; the position stays.
ZipResult Rewrite(ArchiveOutput& output, std::uint64_t offset, std::span<const std::uint8_t> bytes);

}  // namespace kv

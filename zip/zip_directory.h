// Finds the entries of an archive: its end record, its central directory, and the local header of each entry.
// Everything is checked against the size that the archive really has. Any routine gives readFailed when the archive
// cannot be read, and may throw std::bad_alloc.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "zip/archive_input.h"
#include "zip/zip_records.h"
#include "zip/zip_result.h"

namespace kv {

/// Where the entries are: eight bytes for each of them, at most 65,535 entries.
struct ZipDirectoryIndex {
    std::uint64_t archiveStart = 0;             // bytes in front of the archive, such as a program that unpacks it
    std::uint64_t directoryStart = 0;           // offset in the file
    std::vector<std::uint32_t> centralOffsets;  // of each central header, from directoryStart
    std::vector<std::uint32_t> localOffsets;    // of each local header, from archiveStart; sorted
};

/// What the directory tells of one entry.
struct ZipCentralEntry {
    ZipCentralHeader central;
    std::string name;  // as it stands there
    ZipTimes times;    // of its "UT" field; 0 for each that it lacks
};

/// What stands before the entry's data.
struct ZipLocalEntry {
    ZipHeader header;
    std::uint64_t dataOffset = 0;  // in the file
    ZipTimes times;                // of its "UT" field; 0 for each that it lacks
};

/// Reads the whole directory once. corrupt, with a log line, when it does not hold together, or needs 64-bit records or
/// several disks.
[[nodiscard]] ZipResult ReadDirectory(const ArchiveInput& input, ArchiveWindow& window, ZipDirectoryIndex& directory);

/// Reads the central header of an entry of the index, which the index must have. corrupt when it is cut off.
[[nodiscard]] ZipResult ReadCentralEntry(const ArchiveInput& input, ArchiveWindow& window,
                                         const ZipDirectoryIndex& directory, std::size_t index, ZipCentralEntry& entry);

/// Reads the local header that belongs to a central one. corrupt when the two differ, when header and data reach into
/// what belongs to another entry, and, with a log line, when the sizes are 64-bit ones.
[[nodiscard]] ZipResult ReadLocalEntry(const ArchiveInput& input, ArchiveWindow& window,
                                       const ZipDirectoryIndex& directory, const ZipCentralEntry& entry,
                                       ZipLocalEntry& local);

}  // namespace kv

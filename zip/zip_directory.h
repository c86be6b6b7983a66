// Finds the entries of an archive: its end record, its central directory, and the local header of each entry.
// Everything is checked against the size that the archive really has.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "zip/archive_input.h"
#include "zip/zip_records.h"
#include "zip/zip_result.h"

namespace kv {

/// Where the entries are: eight bytes for each, of which there are at most 65,535.
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
    ZipTimes times;    // of its "UT" field; 0 where it has none
};

/// What stands before the entry's data.
struct ZipLocalEntry {
    ZipHeader header;
    std::uint64_t dataOffset = 0;  // in the file
    ZipTimes times;                // of its "UT" field; 0 where it has none
};

/// Reads the whole directory once. corrupt when it does not hold together, or needs 64-bit records or several disks,
/// which leaves a log line.
[[nodiscard]] ZipResult ReadDirectory(const ArchiveInput& input, ArchiveWindow& window, ZipDirectoryIndex& directory);

/// Reads the central header of an entry of the index.
[[nodiscard]] ZipResult ReadCentralEntry(const ArchiveInput& input, ArchiveWindow& window,
                                         const ZipDirectoryIndex& directory, std::size_t index, ZipCentralEntry& entry);

/// Reads the local header that belongs to a central one. corrupt when the two do not tell the same, when header and
/// data reach into what is another's, and, with a log line, when the sizes are 64-bit ones.
[[nodiscard]] ZipResult ReadLocalEntry(const ArchiveInput& input, ArchiveWindow& window,
                                       const ZipDirectoryIndex& directory, const ZipCentralEntry& entry,
                                       ZipLocalEntry& local);

}  // namespace kv

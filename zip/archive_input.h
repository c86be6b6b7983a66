// The archive that is read: a file or a block of memory. Reads are by position and go through windows, so that
// thousands of small items cost few system calls. It belongs to one thread. Results are codes of zip_result.h.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>
#include <vector>

#include "foundation/open_file.h"
#include "zip/zip_result.h"

namespace kv {

struct ArchiveInput {
    OpenFile ownFile;                      // when opened by path
    platform::FileHandle file = 0;         // what is read; 0 for memory
    std::span<const std::uint8_t> memory;  // the caller's
    std::uint64_t size = 0;                // bytes
};

/// Bytes that a window can show at once: enough for the longest name or extra field, and for the stretch that holds the
/// end record.
inline constexpr std::size_t windowSize = std::size_t{66} << 10;

/// The part of a file that was read last. Each place that is read in turn has a window of its own.
struct ArchiveWindow {
    std::vector<std::uint8_t> buffer;  // made at first use
    std::uint64_t start = 0;           // offset in the file
    std::size_t used = 0;              // bytes
};

/// Takes a file by its path, or an open file, which stays the caller's. noFile when it cannot be opened, unseekable
/// when it has no positions, readFailed when it does not tell its size; the system's error is in the log.
[[nodiscard]] ZipResult OpenArchivePath(std::u16string_view path, ArchiveInput& input);
[[nodiscard]] ZipResult OpenArchiveHandle(platform::FileHandle file, ArchiveInput& input);

/// Shows what lies from an offset on: what is at hand, and in any case atLeast bytes, of which windowSize is the most.
/// The bytes hold until the window's next use. corrupt when the archive ends before that, readFailed when the file
/// cannot be read or has become shorter. Throws std::bad_alloc at a window's first use.
[[nodiscard]] ZipResult ViewArchive(const ArchiveInput& input, ArchiveWindow& window, std::uint64_t offset,
                                    std::size_t atLeast, std::span<const std::uint8_t>& bytes);

}  // namespace kv

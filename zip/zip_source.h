// What an entry is made from: a file, bytes in memory, or nothing for a folder. It belongs to one thread.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string_view>

#include "zip/archive_output.h"
#include "zip/zip_records.h"
#include "zip/zip_result.h"

namespace kv {

/// Bytes of a file that are read at a time.
inline constexpr std::size_t readSize = 16384;
using ReadBuffer = std::array<std::uint8_t, readSize>;

struct ZipSource {
    OpenFile ownFile;                       // when opened by path
    platform::FileHandle file = 0;          // what is read; 0 for memory and folders
    std::span<const std::uint8_t> pending;  // not yet given out: memory, or the first read of a file
    std::optional<std::uint64_t> size;      // expected bytes; absent when not known
    ZipTimes times;
    std::uint32_t externalAttributes = 0;
};

/// Takes an open file, which stays the caller's, and makes its first read into the buffer, which the source goes on
/// using. With fromFile, size, times and attributes are the file's own; otherwise the times are the local clock's, and
/// the size is absent. noFile or readFailed, with the system's error in the log.
[[nodiscard]] ZipResult OpenHandleSource(platform::FileHandle file, bool fromFile, ReadBuffer& buffer,
                                         ZipSource& source);

/// The same for a file by its path, which the source owns; noFile, too, when it cannot be opened.
[[nodiscard]] ZipResult OpenFileSource(std::u16string_view path, bool fromFile, ReadBuffer& buffer, ZipSource& source);

/// Takes bytes, which stay the caller's, and a folder, which has none; both get the times of the local clock.
void OpenMemorySource(std::span<const std::uint8_t> block, ZipSource& source);
void OpenFolderSource(ZipSource& source);

/// Gives the next bytes, at most readSize, and no bytes at the end. They hold until the next call. readFailed, with the
/// system's error in the log.
[[nodiscard]] ZipResult ReadSource(ZipSource& source, ReadBuffer& buffer, std::span<const std::uint8_t>& bytes);

}  // namespace kv

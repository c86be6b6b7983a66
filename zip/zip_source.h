// What an entry is made from: a file, bytes in memory, or nothing at all for a folder.
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
    platform::FileHandle file = 0;          // what is read; none for memory and folders
    std::span<const std::uint8_t> pending;  // not yet given out: memory, or the first read of a file
    std::optional<std::uint64_t> size;      // expected bytes, where known
    ZipTimes times;
    std::uint32_t externalAttributes = 0;
};

/// Takes an open file and makes its first read into the buffer, which the source goes on using. With fromFile the size,
/// times and attributes are the file's own, else the local clock is taken. noFile or readFailed.
[[nodiscard]] ZipResult OpenHandleSource(platform::FileHandle file, bool fromFile, ReadBuffer& buffer,
                                         ZipSource& source);

/// The same for a file by its path; noFile also when it cannot be opened.
[[nodiscard]] ZipResult OpenFileSource(std::u16string_view path, bool fromFile, ReadBuffer& buffer, ZipSource& source);

void OpenMemorySource(std::span<const std::uint8_t> block, ZipSource& source);
void OpenFolderSource(ZipSource& source);

/// The next bytes, at most readSize of them; none at the end. They hold until the next call. readFailed.
[[nodiscard]] ZipResult ReadSource(ZipSource& source, ReadBuffer& buffer, std::span<const std::uint8_t>& bytes);

}  // namespace kv

// Reads a zip archive from disk, from an open file or from memory. Format: PKWARE's APPNOTE, stored or deflated items,
// with extended time stamps ("UT" extra field) and the traditional encryption; no 64-bit records and no parts on
// several disks. The records are drawn in zip_records.cpp.
//
// Archives come from elsewhere, so nothing in them is believed: an item gives exactly as many bytes as its header says,
// with the CRC that it says, or it fails; nothing is written that names or links could lead outside the base directory.
//
// A handle belongs to one thread. No routine throws when memory runs out: each gives a code of zip_result.h, noMemory
// among them. UnzipFiles gives no result, and may throw std::bad_alloc.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "platform/files.h"
#include "zip/zip_handle.h"
#include "zip/zip_result.h"

namespace kv {

/// An item of an archive.
struct ZipItem {
    std::int32_t index = -1;  // position in the archive; the number of items when asked for index -1
    std::u16string name;      // cleansed, fewer than maxItemNameLength characters
    std::uint32_t attr = 0;   // FILE_ATTRIBUTE bits: 1 read-only, 2 hidden, 4 system, 0x10 directory, 0x20 archive
    std::uint64_t atime = 0;  // last access, in file times: 100 nanoseconds since 1601, UTC
    std::uint64_t ctime = 0;  // creation
    std::uint64_t mtime = 0;  // last write
    std::uint32_t compressedSize = 0;    // bytes in the archive
    std::uint32_t uncompressedSize = 0;  // bytes when unpacked
};

/// An item with a name of this many characters or more is refused as corrupt.
inline constexpr std::size_t maxItemNameLength = 260;

/// Opens an archive. Null when that fails, for the reason in LastZipReaderResult: noFile, unseekable, readFailed,
/// corrupt, badArguments for a null file or block, noMemory. password may be null. An open file and the block stay the
/// caller's and must outlive the handle.
[[nodiscard]] ZipHandle OpenZip(std::u16string_view path, const char* password);
[[nodiscard]] ZipHandle OpenZipHandle(platform::FileHandle file, const char* password);
[[nodiscard]] ZipHandle OpenZipMemory(const void* block, std::size_t size, const char* password);

/// Sets the directory below which relative paths are unpacked; without this call it is the working directory at the
/// time of opening. It gets a backslash at its end unless it ends in a separator, and the first item makes it when it
/// does not exist. badArguments for an empty one.
ZipResult SetUnzipBaseDir(ZipHandle zip, std::u16string_view directory);

/// Describes an item. Index -1 gives the number of items and leaves all other fields empty. badArguments for any other
/// index that no item has; corrupt, readFailed. After a failure the item is empty.
ZipResult GetZipItem(ZipHandle zip, std::int32_t index, ZipItem& item);

/// Looks up a cleansed name. After notFound or another failure index is -1, and so is that of the item, which is empty.
[[nodiscard]] ZipResult FindZipItem(ZipHandle zip, std::u16string_view name, bool ignoreCase, std::int32_t& index,
                                    ZipItem& item);

/// Unpacks an item to a path below the base directory, or to an absolute path; closes an item left open, and makes the
/// directories on the way. A file or link that stands there is replaced, never what a link leads to. The file gets the
/// item's attributes and times. A relative path that would leave the base directory, or leads through a link below it,
/// is refused with badArguments and a log line. After any failure no file is left; directories that were made stay. An
/// index past the last item does nothing.
///
/// wrongPassword: the item is encrypted, and the password is absent or another one. flateFailed: the data is damaged,
/// is longer or shorter than its header says, or its method or encryption is not known. corrupt: the headers do not
/// hold together. readFailed: the archive cannot be read. noFile: the file or a directory on its way cannot be made.
/// writeFailed: the file cannot be written, as on a full disk. badArguments: also a negative index.
[[nodiscard]] ZipResult UnzipItem(ZipHandle zip, std::int32_t index, std::u16string_view path);

/// Unpacks an item to an open file, from its present position on. After a failure some of the item may have been
/// written.
[[nodiscard]] ZipResult UnzipItemToHandle(ZipHandle zip, std::int32_t index, platform::FileHandle file);

/// Unpacks an item to memory, and writes nothing behind the item's own size. moreData when the block is full and the
/// item goes on: the next call with the same index continues it. Until the last call the item may still turn out
/// damaged.
[[nodiscard]] ZipResult UnzipItemToMemory(ZipHandle zip, std::int32_t index, void* block, std::size_t size);

/// Closes an item left open and the archive, and frees the handle. wrongKind, with nothing freed, for a writer's
/// handle.
ZipResult CloseUnzip(ZipHandle zip);

/// The result of the last call on the reader's side, by any thread of the process.
ZipResult LastZipReaderResult();

/// The same as the writer's form (zip_writer.h), with wide text. The code 1 stands for the last result of the reader's
/// side.
std::size_t FormatZipMessage(ZipResult code, char16_t* buffer, std::size_t size);

/// UnzipFiles refuses an item that would bring the sizes of an archive's items above this. Each item, and each
/// directory on its way, counts for 4 KB more. No query configuration is near it, and no archive may fill the disk.
inline constexpr std::uint64_t maxUnpackedBytes = std::uint64_t{512} << 20;

/// UnzipFiles gives up an archive after this many items that failed, so that it cannot fill the log.
inline constexpr int maxFailedItems = 100;

/// Unpacks a whole archive into a directory. An item that fails is logged at level 1 with its index, its name and the
/// reason, and the next one follows. An archive that cannot be opened is logged, too, and gives no files.
void UnzipFiles(std::u16string_view zipPath, std::u16string_view directory);

}  // namespace kv

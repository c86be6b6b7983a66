// Reads a zip archive from disk, from an open file or from memory. Format: PKWARE's APPNOTE, stored or deflated items,
// with extended time stamps ("UT" extra field) and the traditional encryption; no 64-bit records and no parts on
// several disks. The records are drawn in zip_records.cpp.
//
// Archives come from elsewhere, so nothing in them is believed: an item gives as many bytes as its header says, with
// the CRC that it says, or it fails; what names and links could reach outside the base directory is not written.
//
// A handle belongs to one thread. No routine raises: each gives a code of zip_result.h.
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
    std::int32_t index = -1;  // position in the archive; the number of items in the answer for index -1
    std::u16string name;      // cleansed, fewer than maxItemNameLength characters
    std::uint32_t attr = 0;   // FILE_ATTRIBUTE bits: 1 read-only, 2 hidden, 4 system, 0x10 directory, 0x20 archive
    std::uint64_t atime = 0;  // last access, in file times: 100 nanoseconds since 1601, UTC
    std::uint64_t ctime = 0;  // creation
    std::uint64_t mtime = 0;  // last write
    std::uint32_t compressedSize = 0;    // bytes in the archive
    std::uint32_t uncompressedSize = 0;  // bytes when unpacked
};

/// An item with a name of this many characters or more cannot be named in its entry, and is refused as corrupt.
inline constexpr std::size_t maxItemNameLength = 260;

/// Opens an archive. Null when that fails; LastZipReaderResult tells why. password may be null. An open file stays the
/// caller's, and so does the block, which must outlive the handle.
[[nodiscard]] ZipHandle OpenZip(std::u16string_view path, const char* password);
[[nodiscard]] ZipHandle OpenZipHandle(platform::FileHandle file, const char* password);
[[nodiscard]] ZipHandle OpenZipMemory(const void* block, std::size_t size, const char* password);

/// Sets the directory below which relative paths are unpacked; it gets a backslash behind it where it has none, and is
/// made by the first item where it does not exist. Until then it is the working directory. An empty one is refused.
ZipResult SetUnzipBaseDir(ZipHandle zip, std::u16string_view directory);

/// Describes an item. Index -1 gives the number of items and empty other fields.
ZipResult GetZipItem(ZipHandle zip, std::int32_t index, ZipItem& item);

/// Looks a cleansed name up. notFound leaves index -1 and an empty item, also with index -1.
[[nodiscard]] ZipResult FindZipItem(ZipHandle zip, std::u16string_view name, bool ignoreCase, std::int32_t& index,
                                    ZipItem& item);

/// Unpacks an item to a path, closing one left open and making the directories on the way: below the base directory, or
/// where an absolute path says. A file or link that stands there is replaced, never what a link leads to. The file gets
/// the item's attributes and times. A relative path that would leave the base directory, or that leads through a link
/// below it, is refused with badArguments and a log line. After any failure nothing of the item is left. An index past
/// the last item does nothing.
///
/// wrongPassword: an encrypted item and no password, or another one. flateFailed: the data is damaged, is longer or
/// shorter than its header says, or its method or encryption is not known. corrupt: the headers do not hold together.
/// readFailed: the archive cannot be read. noFile: the file or a directory on its way cannot be made. writeFailed: the
/// file cannot be written, as a full disk does it. badArguments: also a negative index.
[[nodiscard]] ZipResult UnzipItem(ZipHandle zip, std::int32_t index, std::u16string_view path);

/// Unpacks to an open file, from where it stands.
[[nodiscard]] ZipResult UnzipItemToHandle(ZipHandle zip, std::int32_t index, platform::FileHandle file);

/// Unpacks to memory, nothing behind the item's own size; moreData when the block is full and the item goes on: the
/// next call with the same index continues it. What came before the last call can still turn out damaged.
[[nodiscard]] ZipResult UnzipItemToMemory(ZipHandle zip, std::int32_t index, void* block, std::size_t size);

/// Closes an item left open and the archive, and frees the handle.
ZipResult CloseUnzip(ZipHandle zip);

/// The result of the last call on the reader's side, in this process.
ZipResult LastZipReaderResult();

/// As the writer's form (zip_writer.h), in wide text; the code 1 stands for the last result of the reader's side.
std::size_t FormatZipMessage(ZipResult code, char16_t* buffer, std::size_t size);

/// UnzipFiles refuses an item that would bring the sizes of an archive's items above this, each item and each directory
/// on its way counting as 4 KB more: no query configuration is near it, and the disk is not an archive's to fill.
inline constexpr std::uint64_t maxUnpackedBytes = std::uint64_t{512} << 20;

/// UnzipFiles gives an archive up after this many items that failed, so that it cannot fill the log.
inline constexpr int maxFailedItems = 100;

/// Unpacks a whole archive into a directory. An item that fails is logged at level 1 with its index, its name and the
/// reason, and the others go on; so is an archive that cannot be opened, which gives no files.
void UnzipFiles(std::u16string_view zipPath, std::u16string_view directory);

}  // namespace kv

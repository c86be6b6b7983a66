// Writes a zip archive to a file or to memory. Format: PKWARE's APPNOTE, deflate or stored, with extended time stamps
// ("UT" extra field) and, with a password, the traditional encryption; the records are drawn in zip_records.cpp. No
// entry or archive goes beyond what 32-bit offsets and 16-bit counts can say: an entry that would is refused with
// badArguments, and the archive stays good.
//
// A handle belongs to one thread. No routine raises: each gives a code of zip_result.h, and a failure part-way through
// an entry makes the archive refuse all further entries.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

#include "platform/files.h"
#include "zip/zip_handle.h"
#include "zip/zip_result.h"

namespace kv {

/// Starts an archive in a file, always replacing it. Null when that fails; LastZipWriterResult tells why. password may
/// be null, for an archive that is not encrypted; an empty one gives badArguments, as few readers take it.
[[nodiscard]] ZipHandle CreateZip(std::u16string_view path, const char* password);

/// The same in a file that is open for writing, from where it stands on. It stays the caller's. One that has no
/// positions, such as a pipe, gets each entry's CRC and sizes behind its data.
[[nodiscard]] ZipHandle CreateZipHandle(platform::FileHandle file, const char* password);

/// The same in a block of memory of so many bytes, which outlives the handle; with null in one that the archive owns.
/// A size of 0 gives memoryTooSmall.
[[nodiscard]] ZipHandle CreateZipMemory(void* block, std::size_t size, const char* password);

/// Adds a file under a name of at most 260 bytes of UTF-8, in which backslashes become slashes. noFile or readFailed
/// when the source cannot be opened or read from its start: the archive stays good.
[[nodiscard]] ZipResult AddFileToZip(ZipHandle zip, std::u16string_view nameInZip, std::u16string_view path);

/// Adds what an open file holds: all of it where the archive's own file has positions, else what lies behind the place
/// where it stands, stamped with the local clock. The second form tells how many bytes that will be; without it
/// such an archive takes it deflated only.
[[nodiscard]] ZipResult AddHandleToZip(ZipHandle zip, std::u16string_view nameInZip, platform::FileHandle file);
[[nodiscard]] ZipResult AddHandleToZipSized(ZipHandle zip, std::u16string_view nameInZip, platform::FileHandle file,
                                            std::uint64_t size);

/// Adds bytes in memory, stamped with the local clock.
[[nodiscard]] ZipResult AddMemoryToZip(ZipHandle zip, std::u16string_view nameInZip, const void* block,
                                       std::size_t size);

/// Adds a folder entry; a slash is put behind the name where there is none.
[[nodiscard]] ZipResult AddFolderToZip(ZipHandle zip, std::u16string_view nameInZip);

/// Ends the archive, which takes no further entries then, and hands out its memory: it holds until CloseZip. notMemory,
/// null and 0 for an archive in a file.
[[nodiscard]] ZipResult GetZipMemory(ZipHandle zip, const void*& block, std::size_t& size);

/// Writes the central directory unless that is done, brings a file of its own to the disk and closes it, and frees the
/// handle, whatever the result. Once it is ok the sources may go. writeFailed when any byte of the archive could not be
/// written.
[[nodiscard]] ZipResult CloseZip(ZipHandle zip);

/// How many bytes a file of a size, under a name, adds to an archive at most.
[[nodiscard]] std::uint64_t ZippedSizeAtMost(std::u16string_view nameInZip, std::uint64_t size);

bool IsZipHandleForWriting(ZipHandle zip);

/// The result of the last call on the writer's side, in this process.
ZipResult LastZipWriterResult();

/// Length of the text for a code; copies at most size - 1 characters of it, terminated, when a buffer is given. The
/// code 1 stands for the last result of the writer's side.
std::size_t FormatZipMessage(ZipResult code, char* buffer, std::size_t size);

}  // namespace kv

// Writes a zip archive to a file or to memory. Format: PKWARE's APPNOTE, deflated or stored, with extended time stamps
// ("UT" extra field) and, with a password, the traditional encryption; the records are drawn in zip_records.cpp. No
// entry or archive goes beyond what 32-bit offsets and 16-bit counts can say: an entry that would is refused with
// badArguments, and the archive stays good.
//
// A handle belongs to one thread. No routine but ZippedSizeAtMost throws when memory runs out: each gives a code of
// zip_result.h. A failure in the middle of an entry, or noMemory, makes the archive refuse all further entries with
// previousError.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

#include "platform/files.h"
#include "zip/zip_handle.h"
#include "zip/zip_result.h"

namespace kv {

/// Starts an archive in a file, always replacing it. Null when that fails, for the reason in LastZipWriterResult:
/// noFile with the system's error in the log, badArguments, noMemory. password is null for an archive that is not
/// encrypted; an empty one gives badArguments, because few readers take it.
[[nodiscard]] ZipHandle CreateZip(std::u16string_view path, const char* password);

/// The same in a file that is open for writing, from its present position on. The file stays the caller's and must
/// outlive the handle. One that has no positions, such as a pipe, gets each entry's CRC and sizes behind its data.
[[nodiscard]] ZipHandle CreateZipHandle(platform::FileHandle file, const char* password);

/// The same in a block of memory of that size, which must outlive the handle; a null block stands for one that the
/// archive owns. A size of 0 gives memoryTooSmall.
[[nodiscard]] ZipHandle CreateZipMemory(void* block, std::size_t size, const char* password);

/// Adds a file under a name of 1 to 260 bytes of UTF-8, in which backslashes become slashes; badArguments for any other
/// name. noFile or readFailed when the source cannot be opened, or its first bytes cannot be read: the archive stays
/// good. sizeMismatch when it does not stay as long as it was.
[[nodiscard]] ZipResult AddFileToZip(ZipHandle zip, std::u16string_view nameInZip, std::u16string_view path);

/// Adds what an open file holds, which stays the caller's. When the archive's own file has positions, it is all of it;
/// otherwise, it is what lies behind the present position, stamped with the local clock. In that case the second form
/// tells how many bytes will come; without it such an archive takes only deflated entries (changedMind).
[[nodiscard]] ZipResult AddHandleToZip(ZipHandle zip, std::u16string_view nameInZip, platform::FileHandle file);
[[nodiscard]] ZipResult AddHandleToZipSized(ZipHandle zip, std::u16string_view nameInZip, platform::FileHandle file,
                                            std::uint64_t size);

/// Adds bytes in memory, stamped with the local clock.
[[nodiscard]] ZipResult AddMemoryToZip(ZipHandle zip, std::u16string_view nameInZip, const void* block,
                                       std::size_t size);

/// Adds a folder entry; a slash is put behind a name that does not end in one.
[[nodiscard]] ZipResult AddFolderToZip(ZipHandle zip, std::u16string_view nameInZip);

/// Ends the archive, which then takes no further entries (alreadyEnded), and shows its memory, which holds until
/// CloseZip. For an archive in a file notMemory, null and 0: it has ended all the same.
[[nodiscard]] ZipResult GetZipMemory(ZipHandle zip, const void*& block, std::size_t& size);

/// Writes the central directory unless that is done, brings a file made by path to the disk and closes it, and frees
/// the handle, whatever the result. Once it is ok the sources may be deleted. writeFailed when any byte of the archive
/// could not be written. badArguments or wrongKind, with nothing freed, for a null handle or a reader's.
[[nodiscard]] ZipResult CloseZip(ZipHandle zip);

/// The most bytes that a file of that size, under that name, adds to an archive. May throw std::bad_alloc.
[[nodiscard]] std::uint64_t ZippedSizeAtMost(std::u16string_view nameInZip, std::uint64_t size);

/// Whether a handle is a writer's; false for null and for a reader's.
bool IsZipHandleForWriting(ZipHandle zip);

/// The result of the last call on the writer's side, by any thread of the process.
ZipResult LastZipWriterResult();

/// The length of the text for a code. Copies at most size - 1 characters of it, and a terminator, unless the buffer is
/// null or has no room. The code 1 stands for the last result of the writer's side.
std::size_t FormatZipMessage(ZipResult code, char* buffer, std::size_t size);

}  // namespace kv

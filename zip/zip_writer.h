// Writes a zip archive from files on disk. Format: PKWARE's APPNOTE, deflate or stored, with extended time stamps ("UT"
// extra field); the records are drawn in zip_records.cpp. No entry or archive goes beyond what 32-bit offsets and
// 16-bit counts can say: an entry that would is refused with badArguments, and the archive stays good.
//
// A handle belongs to one thread. No routine raises: each gives a code of zip_result.h, and a failure part-way through
// an entry makes the archive refuse all further entries.
#pragma once

#include <cstddef>
#include <string_view>

#include "zip/zip_handle.h"
#include "zip/zip_result.h"

namespace kv {

/// Starts an archive in a file, always replacing it. Null when that fails; LastZipWriterResult tells why. Only archives
/// without a password are written: any other password than null gives badArguments.
ZipHandle CreateZip(std::u16string_view path, const char* password);

/// Adds a file under a name of at most 260 bytes of UTF-8, in which backslashes become slashes. noFile or readFailed
/// when the source cannot be opened or read from its start: the archive stays good.
ZipResult AddFileToZip(ZipHandle zip, std::u16string_view nameInZip, std::u16string_view path);

/// Adds bytes in memory, stamped with the local clock.
ZipResult AddMemoryToZip(ZipHandle zip, std::u16string_view nameInZip, const void* block, std::size_t size);

/// Adds a folder entry; a slash is put behind the name where there is none.
ZipResult AddFolderToZip(ZipHandle zip, std::u16string_view nameInZip);

/// Writes the central directory, brings the archive to the disk, closes the file and frees the handle, whatever the
/// result. Once it is ok the sources may go. writeFailed when any byte of the archive could not be written.
ZipResult CloseZip(ZipHandle zip);

bool IsZipHandleForWriting(ZipHandle zip);

/// The result of the last call on the writer's side, in this process.
ZipResult LastZipWriterResult();

/// Length of the text for a code; copies at most size - 1 characters of it, terminated, when a buffer is given. The
/// code 1 stands for the last result of the writer's side.
std::size_t FormatZipMessage(ZipResult code, char* buffer, std::size_t size);

}  // namespace kv

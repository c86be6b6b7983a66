// Writes a zip archive from files on disk. Format: PKWARE's APPNOTE, deflate or stored, with extended time stamps ("UT"
// extra field); the records are drawn in zip_writer.cpp.
//
// A handle belongs to one thread. No routine raises: each gives a code of zip_result.h, and a failure part-way through an
// entry makes the archive refuse all further entries.
#pragma once

#include <cstddef>
#include <string_view>

#include "zip/zip_result.h"

namespace kv {

/// What a zip handle is for.
enum class ZipKind { reader = 1, writer = 2 };

struct ZipHandleRecord {
    ZipKind kind;
    void* object;
};

/// An archive being written; freed by CloseZip. Null is none.
using ZipHandle = ZipHandleRecord*;

/// Starts an archive in a file, always replacing it. Null when that fails; LastZipWriterResult tells why. Only archives
/// without a password are written: any other password than null gives badArguments.
ZipHandle CreateZip(std::u16string_view path, const char* password);

/// Adds a file under a name, in which backslashes become slashes. noFile when the source cannot be opened: the archive
/// stays good.
ZipResult AddFileToZip(ZipHandle zip, std::u16string_view nameInZip, std::u16string_view path);

/// Adds bytes in memory.
ZipResult AddMemoryToZip(ZipHandle zip, std::u16string_view nameInZip, const void* block, std::size_t size);

/// Adds a folder entry; a slash is put behind the name where there is none.
ZipResult AddFolderToZip(ZipHandle zip, std::u16string_view nameInZip);

/// Writes the central directory, closes the file and frees the handle.
ZipResult CloseZip(ZipHandle zip);

bool IsZipHandleForWriting(ZipHandle zip);

/// The result of the last call on the writer's side, in this process.
ZipResult LastZipWriterResult();

/// Length of the text for a code; copies at most size - 1 characters of it, terminated, when a buffer is given. The code
/// 1 stands for the last result of the writer's side.
std::size_t FormatZipMessage(ZipResult code, char* buffer, std::size_t size);

}  // namespace kv

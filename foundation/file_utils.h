// File helpers on top of the platform's file operations.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "platform/errors.h"

namespace kv {

/// Removes a directory with everything in it; 1 when all went well, else 0. A directory that cannot be searched, such
/// as a missing one, gives 1 with a log line and nothing removed.
int DeleteDirectoryRecursively(std::u16string_view path);

/// Deletes a directory, with everything in it, that stands where a file of the agent's belongs. It leaves a log line.
void ClearDirectoryFromPath(std::u16string_view path);

/// Whether anything matches a path, which may hold wildcards. A miss leaves a log line.
[[nodiscard]] bool CheckFileExists(std::u16string_view path);

[[nodiscard]] bool IsDirectory(std::u16string_view path);

/// 1 when the path is not a directory and can be opened for reading, also while others write to it, else 0.
[[nodiscard]] int fileExists(std::u16string_view fileName);

/// False only when there certainly is nothing at the path: what cannot be opened or looked at is still someone's file.
[[nodiscard]] bool MayExist(std::u16string_view path);

/// Number of entries that match the pattern with ".zip" behind it (such as "zipdata\*"); 0 when the search fails.
[[nodiscard]] int GetZipFileCount(std::u16string_view pattern);

/// Whether a relative path, with separators of either kind, names something below the directory that it is joined to:
/// none that begins with a separator or a drive, none with a part that climbs.
[[nodiscard]] bool StaysBelowDirectory(std::u16string_view path);

/// Whether a text can be the name of one file or directory in whichever directory, on every system: not empty, none of
/// \ / : * ? " < > | and no control character in it, no dot or blank at its end.
[[nodiscard]] bool IsPlainFileName(std::u16string_view name);

/// Whether a directory's disk has room for so many bytes more. Where it has not, one line at level 1 says what needs
/// them, how many there are, how many are missing, and what happens next. True where the system does not say.
bool HasRoomFor(std::u16string_view directory, std::uint64_t bytes, std::u16string_view what, std::string_view next);

/// Whether a file is still being written.
enum class FileUse {
    free = -1,
    inUse = 0,   // found after a pause of 250 milliseconds
    unknown = 1  // some other error, which has been logged
};
[[nodiscard]] FileUse IsFileisOpen(std::u16string_view path);

/// The whole content of a file in bytes, read while others may write to it; 0, or the system's error. moreData when it
/// has more than largest bytes, which is asked before any is read.
[[nodiscard]] platform::Error ReadWholeFile(std::u16string_view path, std::string& content,
                                            std::uint64_t largest = UINT64_MAX);

/// Writes a file under a temporary name (temporaryPath) and renames it to path when it is complete and closed,
/// replacing one of that name. After an error neither a partial file nor the temporary one is left. 0, or the system's
/// error.
[[nodiscard]] platform::Error WriteCompleteFile(std::u16string_view path, std::u16string_view temporaryPath,
                                                std::string_view bytes);

/// The bytes of a wide text in UTF-16LE, without a byte order mark.
std::string Utf16LittleEndianBytes(std::u16string_view text);

/// The wide text of UTF-16LE bytes, without a byte order mark; an odd last byte is dropped.
std::u16string TextFromUtf16LittleEndian(std::string_view bytes);

}  // namespace kv

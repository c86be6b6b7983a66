// File helpers on top of the platform's file operations. Callable from any thread. What they tell is true at that
// moment only: another process may change it at once.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "platform/errors.h"

namespace kv {

/// Removes a directory with everything in it; 1 when all of it is gone, else 0. A directory that cannot be searched,
/// such as a missing one, gives 1 with a log line, and nothing is removed.
int DeleteDirectoryRecursively(std::u16string_view path);

/// Deletes a directory, with everything in it, that stands where a file of the agent's belongs, and logs that. Does
/// nothing when there is no directory at the path.
void ClearDirectoryFromPath(std::u16string_view path);

/// Whether anything matches a path, which may hold wildcards. A log line says when nothing does.
[[nodiscard]] bool CheckFileExists(std::u16string_view path);

[[nodiscard]] bool IsDirectory(std::u16string_view path);

/// 1 when the path is not a directory and can be opened for reading, even while others write to it; else 0.
[[nodiscard]] int fileExists(std::u16string_view fileName);

/// False only when there is certainly nothing at the path: what cannot be opened or looked at is still someone's file.
[[nodiscard]] bool MayExist(std::u16string_view path);

/// How many entries match the pattern followed by ".zip" (the pattern is such as "zipdata\*"); 0 with a log line when
/// the search fails or nothing matches.
[[nodiscard]] int GetZipFileCount(std::u16string_view pattern);

/// Whether a relative path, with separators of either kind, names something below the directory that it is joined to. A
/// path that begins with a separator or a drive does not, nor does one with a part that climbs.
[[nodiscard]] bool StaysBelowDirectory(std::u16string_view path);

/// Whether a text can name a file or directory on every system: it is not empty, holds none of \ / : * ? " < > | and no
/// control character, and does not end in a dot or a blank.
[[nodiscard]] bool IsPlainFileName(std::u16string_view name);

/// Whether a directory's disk has room for that many more bytes. If not, one line at level 1 says what needs them, how
/// many are free, how many are missing, and what happens next. True when the system does not say.
bool HasRoomFor(std::u16string_view directory, std::uint64_t bytes, std::u16string_view what, std::string_view next);

/// Whether a file is still being written.
enum class FileUse {
    free = -1,
    inUse = 0,   // the call has paused for 250 milliseconds
    unknown = 1  // some other error, which has been logged
};
[[nodiscard]] FileUse IsFileisOpen(std::u16string_view path);

/// The whole content of a file, read while others may write to it; 0, or the system's error. moreData when it has more
/// than `largest` bytes, as is asked before any is read and again as they come; notEnoughMemory when they do not fit
/// into memory. After an error content holds what had been read.
[[nodiscard]] platform::Error ReadWholeFile(std::u16string_view path, std::string& content,
                                            std::uint64_t largest = UINT64_MAX);

/// Writes a file under a temporary name (temporaryPath) and, once it is complete, on the disk and closed, renames it to
/// path, replacing a file of that name. 0, or the system's error: the temporary file is then deleted, and what stood at
/// path is as it was.
[[nodiscard]] platform::Error WriteCompleteFile(std::u16string_view path, std::u16string_view temporaryPath,
                                                std::string_view bytes);

/// The same without waiting for the disk, for what is written again soon: a power failure may leave it damaged.
/// Whatever stands at temporaryPath is deleted first, and a link there is not followed. A device or a pipe at path
/// stays (alreadyExists). Everyone may read the file if that is asked for.
enum class Readers { ownerAndGroup, everyone };
[[nodiscard]] platform::Error ReplaceFile(std::u16string_view path, std::u16string_view temporaryPath,
                                          std::string_view bytes, Readers readers);

/// Whether a path begins at the root of the system's files, so that it is the same from every working directory. A
/// slash and a backslash are alike, and "c:\" begins a whole path on every system. Throws std::bad_alloc.
bool IsWholePath(std::u16string_view path);

/// Whether names can be appended to a path.
bool EndsInSeparator(std::u16string_view path);

/// The bytes of a wide text in UTF-16LE, without a byte order mark.
std::string Utf16LittleEndianBytes(std::u16string_view text);

/// The wide text of UTF-16LE bytes, without a byte order mark; an odd last byte is dropped.
std::u16string TextFromUtf16LittleEndian(std::string_view bytes);

}  // namespace kv

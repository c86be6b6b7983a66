// Files and directories. Paths are wide text with backslashes (slashes are taken too), absolute or relative to the
// working directory.
//
// On Linux each backslash becomes a slash, and a path on drive "c:" lands in "drive_c/" of the state directory (other
// letters likewise). Names are case-sensitive there, patterns with wildcards are not.
//
// On Windows a path has at most 259 characters, unless the computer's settings allow longer ones; a longer one counts
// as missing. Names of devices, such as "NUL" and "COM1", are not opened (invalidName). A file that the agent has open
// can be renamed and deleted, as on Linux, but not replaced. A file that another program has open can often be neither:
// a rename, a delete or an open for writing then tries again for 200 milliseconds.
//
// Results are system error numbers, 0 for success, unless a routine says otherwise. Callable from any thread; a handle
// belongs to one thread at a time.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/errors.h"
#include "platform/seam.h"

namespace platform {

struct FindData {
    std::u16string fileName;   // without directory
    bool isDirectory = false;  // a symbolic link counts as a file, whatever it leads to
};

/// A search in progress, which FindClose ends, or 0.
using FindHandle = std::uintptr_t;

enum class FileAccess { read, write, readWrite, append };

/// What others may do with the file while this handle is open. Windows enforces it. Linux does not; there
/// GetFileUseState answers the one question that depends on it.
enum class FileShare { none, read, readWrite };

enum class FileDisposition {
    openExisting,  // fileNotFound when missing
    openAlways,    // create when missing
    createAlways,  // create, or cut to length 0
    createNew,     // alreadyExists when anything is there; a link is not followed
};

/// What MoveFileExW does with a target that exists: alreadyExists, or replaces it, even a read-only one.
enum class MoveTarget { mustBeNew, isReplaced };

/// An open file, which CloseHandle closes, or 0.
using FileHandle = std::uintptr_t;

/// FILE_ATTRIBUTE bits.
namespace file_attribute {
inline constexpr std::uint32_t readOnly = 0x1;
inline constexpr std::uint32_t hidden = 0x2;
inline constexpr std::uint32_t system = 0x4;
inline constexpr std::uint32_t directory = 0x10;
inline constexpr std::uint32_t archive = 0x20;
inline constexpr std::uint32_t device = 0x40;         // neither file, directory nor link
inline constexpr std::uint32_t reparsePoint = 0x400;  // a link
}  // namespace file_attribute

/// A lock of LockDirectory: CloseHandle closes each handle that is not 0.
struct DirectoryLock {
    FileHandle directory = 0;
    FileHandle place = 0;
};

/// Times are Windows file times: in units of 100 nanoseconds, since 1601, UTC.
struct FileInformation {
    std::uint32_t attributes = 0;
    std::uint64_t creationTime = 0;
    std::uint64_t lastAccessTime = 0;
    std::uint64_t lastWriteTime = 0;
    std::uint64_t size = 0;  // bytes
};

/// What the directory operations give: C error numbers, the same on every system. Others may come from a backend.
namespace directory_error {
inline constexpr int success = 0;
inline constexpr int notFound = 2;  // no such path
inline constexpr int noMemory = 12;
inline constexpr int denied = 13;
inline constexpr int exists = 17;
inline constexpr int invalid = 22;  // not a path at all
}  // namespace directory_error

struct FileOperations {
    /// Starts a search for names that match a pattern with "*" and "?" in its last part, as Windows matches them:
    /// without regard to case, and "*.*" matches every name. "." and ".." come first when the pattern matches them, the
    /// rest in order of name. fileNotFound when nothing matches, pathNotFound when the directory does not exist.
    std::function<Error(std::u16string_view pattern, FindData& first, FindHandle& search)> FindFirstFileW;

    /// noMoreFiles at the end.
    std::function<Error(FindHandle search, FindData& next)> FindNextFileW;
    std::function<void(FindHandle search)> FindClose;

    std::function<Error(std::u16string_view path, FileAccess access, FileShare share, FileDisposition disposition,
                        FileHandle& file)>
        CreateFileW;

    /// Reads at most size bytes; read is 0 at the end of the file.
    std::function<Error(FileHandle file, void* buffer, std::size_t size, std::size_t& read)> ReadFile;

    /// Writes all bytes or fails: diskFull and the like. With FileAccess::append each write goes to the end of the
    /// file.
    std::function<Error(FileHandle file, const void* data, std::size_t size)> WriteFile;

    /// Writes a text with the line ends of the system's text files: each "\n" becomes CR LF on Windows. A long text may
    /// go in several writes.
    std::function<Error(FileHandle file, std::string_view text)> WriteText;

    /// Moves to an absolute offset in bytes.
    std::function<Error(FileHandle file, std::uint64_t offset)> SetFilePointerEx;
    std::function<Error(FileHandle file, std::uint64_t& offset)> GetFilePointer;

    std::function<Error(FileHandle file, std::uint64_t& size)> GetFileSizeEx;
    std::function<Error(FileHandle file, FileInformation& information)> GetFileInformationByHandle;

    /// Sets attributes and times, none of which may be 0; the size is ignored. Linux can make a file read-only, and
    /// sets no other attribute and no creation time.
    std::function<Error(FileHandle file, const FileInformation& information)> SetFileInformationByHandle;

    /// Attributes of what is at the path: of a link itself, not of what it leads to. fileNotFound, pathNotFound.
    std::function<Error(std::u16string_view path, std::uint32_t& attributes)> GetFileAttributesW;

    /// Lets every user of the computer read an open file that this process has made. On Windows the file's directory
    /// decides who reads it, and nothing is done.
    std::function<Error(FileHandle file)> LetEveryoneRead;

    /// Returns when what was written is on the disk.
    std::function<Error(FileHandle file)> FlushFileBuffers;

    /// Locks a directory: lockViolation while somebody else has the lock, in this process or any other. It never waits,
    /// and keeps nobody from working in the directory. The lock ends with its handles, or with the process in whichever
    /// way that ends. On Linux it is on the directory itself, so that nobody takes it away with a file; over NFS, which
    /// locks no directories, and on Windows it is on the file of that name in it, which is made when it is missing. On
    /// Windows nobody can rename or delete that file while it is locked. Another error where the file system has no
    /// locks.
    ///
    /// place: a directory above it, or empty. Linux locks it as well, where it can be locked: who deletes the directory
    /// under a lock, and makes another one, could lock that. Windows does not let it be deleted.
    std::function<Error(std::u16string_view directory, std::u16string_view place, std::u16string_view fileName,
                        DirectoryLock& lock)>
        LockDirectory;

    /// Whether somebody has the lock that LockDirectory gives, without taking it for a moment: success; fileNotFound
    /// when nobody has it; notSupported and others where that cannot be told. processes: the numbers of those that may
    /// be it; the caller has to know which. Windows tells no number.
    std::function<Error(std::u16string_view directory, std::u16string_view place, std::u16string_view fileName,
                        std::vector<std::uint32_t>& processes)>
        FindDirectoryLock;

    std::function<Error(FileHandle file)> CloseHandle;

    /// Copies a file, over another if there is one. After an error the target may hold a part of the copy on Windows;
    /// on Linux it is as it was.
    std::function<Error(std::u16string_view from, std::u16string_view to)> CopyFileW;

    /// Renames a file in one step. On Linux, when the target must not exist and the file system cannot see to that, the
    /// file gets its second name first and loses the first one then.
    std::function<Error(std::u16string_view from, std::u16string_view to, MoveTarget target)> MoveFileExW;

    std::function<Error(std::u16string_view path)> DeleteFileW;

    /// Removes an empty directory.
    std::function<Error(std::u16string_view path)> RemoveDirectoryW;

    /// True when the path exists and is a directory.
    std::function<bool(std::u16string_view path)> IsDirectory;

    /// Bytes that this user may still write into a directory; 0 also where the disk cannot hold another file.
    /// notSupported where the file system does not say.
    std::function<Error(std::u16string_view directory, std::uint64_t& available)> GetDiskFreeSpaceExW;

    /// The three below give a C error number (directory_error), 0 for success.
    std::function<int(std::u16string_view path)> wmkdir;
    std::function<int(std::u16string_view path)> wchdir;
    std::function<int(std::u16string& path)> wgetcwd;

    /// Whether another handle, in this process or any other, has the file open for writing: success when not,
    /// sharingViolation when so, else why that cannot be found out. On Linux success also where the system does not
    /// tell, as of another user's file. A program that opens the file for writing at that very moment is refused on
    /// Windows; on Linux it waits until the question is answered, or is refused if it does not want to wait.
    std::function<Error(std::u16string_view path)> GetFileUseState;

    /// The path in this system's own form, for a program that is told about the file.
    std::function<std::u16string(std::u16string_view path)> NativePath;
};

inline const FileOperations& Files() { return CurrentOperations<FileOperations>(); }

}  // namespace platform

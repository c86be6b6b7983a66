#include <array>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>
#include <utility>

#include "platform/guarded.h"
#include "platform/linux/descriptor.h"
#include "platform/linux/file_search.h"
#include "platform/linux/kernel_locks.h"
#include "platform/linux/linux.h"
#include "platform/utf.h"

namespace platform {

namespace {

namespace fs = std::filesystem;

/// Only the owner and the group may read what the agent writes: records tell much about a computer, and logs name
/// customers.
constexpr mode_t newFileMode = 0640;
constexpr mode_t newDirectoryMode = 0750;

/// Descriptor 0 is valid and handle 0 is not, so a handle is its descriptor plus one.
FileHandle FileHandleOf(int descriptor) { return static_cast<FileHandle>(descriptor) + 1; }
int DescriptorOf(FileHandle file) { return static_cast<int>(file) - 1; }

Error LastError() { return ErrorFromErrno(errno); }

/// The last error of an operation on a path: a missing directory on the way is told apart from a missing file.
Error LastPathError(const std::string& path) {
    const int code = errno;
    if (code != ENOENT) return ErrorFromErrno(code);
    const fs::path parent = fs::path(path).parent_path();
    std::error_code ignored;
    return parent.empty() || fs::is_directory(parent, ignored) ? error::fileNotFound : error::pathNotFound;
}

/// Drive "c:" always exists: what makes a file or directory on it also makes the drive's directory when it is missing.
void MakeSystemDrive(const std::string& path) {
    const std::string drive = StateDirectory() + "/drive_c";
    if (!path.starts_with(drive + "/")) return;
    mkdir(StateDirectory().c_str(), newDirectoryMode);
    mkdir(drive.c_str(), newDirectoryMode);
}

std::string NewPathOf(std::u16string_view path) {
    std::string native = NativePathOf(path);
    MakeSystemDrive(native);
    return native;
}

/// Opens without ever waiting for a pipe's other end. It does wait for a file on which someone holds a lease for a
/// moment (as GetFileUseState does), until the lease is given back.
int OpenDescriptor(const std::string& path, int flags, mode_t mode = newFileMode) {
    flags |= O_CLOEXEC | O_NOCTTY;
    const int descriptor = open(path.c_str(), flags | O_NONBLOCK, mode);
    return descriptor < 0 && errno == EWOULDBLOCK ? open(path.c_str(), flags, mode) : descriptor;
}

int OpenFlags(FileAccess access, FileDisposition disposition) {
    int flags = O_RDONLY;
    if (access == FileAccess::write) flags = O_WRONLY;
    if (access == FileAccess::readWrite) flags = O_RDWR;
    if (access == FileAccess::append) flags = O_WRONLY | O_APPEND;
    if (disposition != FileDisposition::openExisting) flags |= O_CREAT;
    if (disposition == FileDisposition::createAlways) flags |= O_TRUNC;
    if (disposition == FileDisposition::createNew) flags |= O_EXCL;
    return flags;
}

Error CreateFileW(std::u16string_view path, FileAccess access, FileShare, FileDisposition disposition,
                  FileHandle& file) {
    file = 0;
    const bool mayCreate = disposition != FileDisposition::openExisting;
    const std::string native = mayCreate ? NewPathOf(path) : NativePathOf(path);
    Descriptor opened(OpenDescriptor(native, OpenFlags(access, disposition)));
    if (!opened) return LastPathError(native);
    struct stat status {};
    if (access == FileAccess::read) {  // no directory can be opened for writing
        if (fstat(opened.get(), &status) != 0) return LastError();
        if (S_ISDIR(status.st_mode)) return error::accessDenied;
    }
    file = FileHandleOf(opened.Release());
    return error::success;
}

Error ReadFile(FileHandle file, void* buffer, std::size_t size, std::size_t& read) {
    read = 0;
    for (;;) {
        const ssize_t count = ::read(DescriptorOf(file), buffer, size);
        if (count < 0 && errno == EINTR) continue;
        if (count < 0) return errno == EIO ? error::readFault : LastError();
        read = static_cast<std::size_t>(count);
        return error::success;
    }
}

Error WriteFile(FileHandle file, const void* data, std::size_t size) {
    const char* bytes = static_cast<const char*>(data);
    while (size > 0) {
        const ssize_t count = write(DescriptorOf(file), bytes, size);
        if (count < 0 && errno == EINTR) continue;
        if (count < 0 && errno != EIO) return LastError();
        if (count <= 0) return error::writeFault;
        bytes += count;
        size -= static_cast<std::size_t>(count);
    }
    return error::success;
}

Error SetFilePointerEx(FileHandle file, std::uint64_t offset) {
    return lseek(DescriptorOf(file), static_cast<off_t>(offset), SEEK_SET) < 0 ? LastError() : error::success;
}

Error GetFilePointer(FileHandle file, std::uint64_t& offset) {
    const off_t position = lseek(DescriptorOf(file), 0, SEEK_CUR);
    if (position < 0) return LastError();
    offset = static_cast<std::uint64_t>(position);
    return error::success;
}

Error GetFileSizeEx(FileHandle file, std::uint64_t& size) {
    struct stat status {};
    if (fstat(DescriptorOf(file), &status) != 0) return LastError();
    size = static_cast<std::uint64_t>(status.st_size);
    return error::success;
}

constexpr std::int64_t secondsFrom1601To1970 = 11644473600;

/// The unit of Windows file times: 100 nanoseconds since 1601.
std::uint64_t FileTimeOf(const statx_timestamp& time) {
    return static_cast<std::uint64_t>(time.tv_sec + secondsFrom1601To1970) * 10'000'000 + time.tv_nsec / 100;
}

std::timespec TimeOf(std::uint64_t fileTime) {
    return {static_cast<std::time_t>(fileTime / 10'000'000) - secondsFrom1601To1970,
            static_cast<long>(fileTime % 10'000'000) * 100};
}

constexpr mode_t anyWriter = S_IWUSR | S_IWGRP | S_IWOTH;

std::uint32_t AttributesOf(mode_t mode) {
    if (S_ISLNK(mode)) return file_attribute::reparsePoint;
    if (!S_ISREG(mode) && !S_ISDIR(mode)) return file_attribute::device;
    const bool writable = (mode & anyWriter) != 0;
    return (S_ISDIR(mode) ? file_attribute::directory : file_attribute::archive) |
           (writable ? 0 : file_attribute::readOnly);
}

Error GetFileAttributesW(std::u16string_view path, std::uint32_t& attributes) {
    const std::string native = NativePathOf(path);
    struct stat status {};
    if (lstat(native.c_str(), &status) != 0) return LastPathError(native);
    attributes = AttributesOf(status.st_mode);
    return error::success;
}

Error GetFileInformationByHandle(FileHandle file, FileInformation& information) {
    struct statx status {};
    if (statx(DescriptorOf(file), "", AT_EMPTY_PATH, STATX_BASIC_STATS | STATX_BTIME, &status) != 0) return LastError();
    const bool knowsCreation = (status.stx_mask & STATX_BTIME) != 0;
    information.attributes = AttributesOf(status.stx_mode);
    information.creationTime = FileTimeOf(knowsCreation ? status.stx_btime : status.stx_ctime);
    information.lastAccessTime = FileTimeOf(status.stx_atime);
    information.lastWriteTime = FileTimeOf(status.stx_mtime);
    information.size = status.stx_size;
    return error::success;
}

Error SetFileInformationByHandle(FileHandle file, const FileInformation& information) {
    const int descriptor = DescriptorOf(file);
    const std::timespec times[] = {TimeOf(information.lastAccessTime), TimeOf(information.lastWriteTime)};
    if (futimens(descriptor, times) != 0) return LastError();
    if ((information.attributes & file_attribute::readOnly) == 0) return error::success;
    struct stat status {};
    if (fstat(descriptor, &status) != 0) return LastError();
    return fchmod(descriptor, status.st_mode & 07777 & ~anyWriter) != 0 ? LastError() : error::success;
}

Error LetEveryoneRead(FileHandle file) {
    return fchmod(DescriptorOf(file), S_IRUSR | S_IWUSR | S_IRGRP | S_IROTH) != 0 ? LastError() : error::success;
}

Error FlushFileBuffers(FileHandle file) { return fsync(DescriptorOf(file)) != 0 ? LastError() : error::success; }

/// Opens and locks. A child of this process never keeps the lock: what it inherits is closed when it begins.
Error TakeLock(const std::string& path, int flags, Descriptor& lock) {
    Descriptor opened(OpenDescriptor(path, flags));
    if (!opened) return LastPathError(path);
    if (flock(opened.get(), LOCK_EX | LOCK_NB) != 0) return errno == EWOULDBLOCK ? error::lockViolation : LastError();
    lock = std::move(opened);
    return error::success;
}

/// The place comes first: who has it and not the directory would keep nobody out.
Error LockDirectory(std::u16string_view directory, std::u16string_view place, std::u16string_view fileName,
                    DirectoryLock& lock) {
    lock = {};
    Descriptor above;
    if (!place.empty() && TakeLock(NativePathOf(place), O_RDONLY | O_DIRECTORY, above) == error::lockViolation)
        return error::lockViolation;
    Descriptor itself;
    const std::string native = NativePathOf(directory);
    Error result = TakeLock(native, O_RDONLY | O_DIRECTORY, itself);
    // NFS locks only what is open for writing, which no directory can be.
    if (result == error::invalidHandle)
        result = TakeLock(fs::path(native) / Utf8FromWide(fileName), O_RDWR | O_CREAT, itself);
    if (result != error::success) return result;
    lock.directory = FileHandleOf(itself.Release());
    if (above) lock.place = FileHandleOf(above.Release());
    return error::success;
}

Error FindDirectoryLock(std::u16string_view directory, std::u16string_view place, std::u16string_view fileName,
                        std::vector<std::uint32_t>& processes) {
    processes.clear();
    const std::string native = NativePathOf(directory);
    Error unknown = error::fileNotFound;
    for (const std::string& path :
         {native, NativePathOf(place), (fs::path(native) / Utf8FromWide(fileName)).string()}) {
        const Error result = FindExclusiveLocks(path, processes);
        if (result != error::success && result != error::fileNotFound) unknown = result;
    }
    return processes.empty() ? unknown : error::success;
}

Error CloseHandle(FileHandle file) {
    // After EINTR the descriptor is closed all the same, and its number may be someone else's already.
    return close(DescriptorOf(file)) != 0 && errno != EINTR ? LastError() : error::success;
}

Error CopyBytes(FileHandle from, FileHandle to) {
    std::array<char, 65536> buffer;
    for (;;) {
        std::size_t count = 0;
        if (const Error failure = ReadFile(from, buffer.data(), buffer.size(), count); failure != 0) return failure;
        if (count == 0) return FlushFileBuffers(to);
        if (const Error failure = WriteFile(to, buffer.data(), count); failure != 0) return failure;
    }
}

/// Fills a new file with another's bytes, permissions and time of last write.
Error CopyContents(int from, int to) {
    struct stat status {};
    if (fstat(from, &status) != 0) return LastError();
    if (S_ISDIR(status.st_mode)) return error::accessDenied;
    if (const Error failure = CopyBytes(FileHandleOf(from), FileHandleOf(to)); failure != 0) return failure;
    const std::array<timespec, 2> times{timespec{0, UTIME_OMIT}, status.st_mtim};
    if (futimens(to, times.data()) != 0 || fchmod(to, status.st_mode & 07777) != 0) return LastError();
    return error::success;
}

/// The copy grows under another name beside the target, and takes the target's place when it is complete. That name is
/// always the same for a target, so that the next copy overwrites what a killed one has left.
Error CopyFileW(std::u16string_view from, std::u16string_view to) {
    const std::string source = NativePathOf(from);
    const std::string target = NewPathOf(to);
    const Descriptor input(OpenDescriptor(source, O_RDONLY));
    if (!input) return LastPathError(source);
    const fs::path targetPath(target);
    const std::string growing = targetPath.parent_path() / (".copy-" + targetPath.filename().string());
    const Descriptor output(open(growing.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, 0600));
    if (!output) return LastPathError(target);
    Error failure = CopyContents(input.get(), output.get());
    if (failure == 0 && rename(growing.c_str(), target.c_str()) != 0) failure = LastPathError(target);
    if (failure != 0) unlink(growing.c_str());
    return failure;
}

/// Renames when the target does not exist yet. On file systems without such a rename, makes a second name and drops the
/// first.
int RenameToNew(const std::string& from, const std::string& to) {
    const int result = renameat2(AT_FDCWD, from.c_str(), AT_FDCWD, to.c_str(), RENAME_NOREPLACE);
    if (result == 0 || (errno != EINVAL && errno != ENOSYS)) return result;
    return link(from.c_str(), to.c_str()) != 0 ? -1 : unlink(from.c_str());
}

Error MoveFileExW(std::u16string_view from, std::u16string_view to, MoveTarget existing) {
    const std::string source = NativePathOf(from);
    const std::string target = NewPathOf(to);
    const bool isReplaced = existing == MoveTarget::isReplaced;
    const int result = isReplaced ? rename(source.c_str(), target.c_str()) : RenameToNew(source, target);
    if (result == 0) return error::success;
    const Error failure = LastPathError(source);
    std::error_code ignored;
    return failure == error::fileNotFound && fs::exists(fs::symlink_status(source, ignored)) ? error::pathNotFound
                                                                                             : failure;
}

Error DeleteFileW(std::u16string_view path) {
    const std::string native = NativePathOf(path);
    return unlink(native.c_str()) != 0 ? LastPathError(native) : error::success;
}

Error RemoveDirectoryW(std::u16string_view path) {
    const std::string native = NativePathOf(path);
    if (rmdir(native.c_str()) == 0) return error::success;
    if (errno == ENOTDIR) return error::directoryName;
    return errno == EEXIST ? error::directoryNotEmpty : LastPathError(native);
}

bool IsDirectory(std::u16string_view path) {
    std::error_code ignored;
    return fs::is_directory(NativePathOf(path), ignored);
}

/// A file system that counts no files, or no blocks, says 0 of them in all.
Error GetDiskFreeSpaceExW(std::u16string_view directory, std::uint64_t& available) {
    struct statvfs status {};
    if (statvfs(NativePathOf(directory).c_str(), &status) != 0) {
        return errno == ENOENT ? error::pathNotFound : LastError();
    }
    if (status.f_blocks == 0) return error::notSupported;
    const bool isOutOfFiles = status.f_files != 0 && status.f_favail == 0;
    available = isOutOfFiles ? 0 : std::uint64_t{status.f_bavail} * status.f_frsize;
    return error::success;
}

/// The C error number that the runtime library of Windows gives for the same failure.
int RuntimeErrno(int code) {
    switch (code) {
        case ENOTDIR:
            return ENOENT;
        case EPERM:
        case EROFS:
            return EACCES;
        case ENAMETOOLONG:
            return EINVAL;
        default:
            return code;
    }
}

int MakeDirectory(std::u16string_view path) {
    return mkdir(NewPathOf(path).c_str(), newDirectoryMode) != 0 ? RuntimeErrno(errno) : 0;
}

int ChangeDirectory(std::u16string_view path) {
    return chdir(NativePathOf(path).c_str()) != 0 ? RuntimeErrno(errno) : 0;
}

int GetWorkingDirectory(std::u16string& path) {
    std::error_code failure;
    const fs::path directory = fs::current_path(failure);
    if (failure) return RuntimeErrno(failure.value());
    path = WideFromUtf8(directory.native());
    return 0;
}

/// The kernel refuses a read lease with EAGAIN while anyone has the file open for writing. Where it grants no lease at
/// all (the file is another user's, the file system has no leases) the file counts as free. While the lease is held, an
/// open for writing raises a signal here; SIGURG does nothing by default.
Error GetFileUseState(std::u16string_view path) {
    const std::string native = NativePathOf(path);
    const Descriptor file(open(native.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
    if (!file) return errno == EWOULDBLOCK ? error::sharingViolation : LastPathError(native);
    if (fcntl(file.get(), F_SETSIG, SIGURG) != 0) return error::success;
    if (fcntl(file.get(), F_SETLEASE, F_RDLCK) != 0) {
        return errno == EAGAIN ? error::sharingViolation : error::success;
    }
    fcntl(file.get(), F_SETLEASE, F_UNLCK);
    return error::success;
}

std::u16string NativePath(std::u16string_view path) { return WideFromUtf8(NativePathOf(path)); }

}  // namespace

FileOperations LinuxFiles() {
    return {
        .FindFirstFileW = Guarded(FindFirstFile),
        .FindNextFileW = Guarded(FindNextFile),
        .FindClose = FindClose,
        .CreateFileW = Guarded(CreateFileW),
        .ReadFile = ReadFile,
        .WriteFile = WriteFile,
        .WriteText = [](FileHandle file, std::string_view text) { return WriteFile(file, text.data(), text.size()); },
        .SetFilePointerEx = SetFilePointerEx,
        .GetFilePointer = GetFilePointer,
        .GetFileSizeEx = GetFileSizeEx,
        .GetFileInformationByHandle = GetFileInformationByHandle,
        .SetFileInformationByHandle = SetFileInformationByHandle,
        .GetFileAttributesW = Guarded(GetFileAttributesW),
        .LetEveryoneRead = LetEveryoneRead,
        .FlushFileBuffers = FlushFileBuffers,
        .LockDirectory = Guarded(LockDirectory),
        .FindDirectoryLock = Guarded(FindDirectoryLock),
        .CloseHandle = CloseHandle,
        .CopyFileW = Guarded(CopyFileW),
        .MoveFileExW = Guarded(MoveFileExW),
        .DeleteFileW = Guarded(DeleteFileW),
        .RemoveDirectoryW = Guarded(RemoveDirectoryW),
        .IsDirectory = IsDirectory,
        .GetDiskFreeSpaceExW = Guarded(GetDiskFreeSpaceExW),
        .wmkdir = Guarded(MakeDirectory, directoryErrorResults),
        .wchdir = Guarded(ChangeDirectory, directoryErrorResults),
        .wgetcwd = Guarded(GetWorkingDirectory, directoryErrorResults),
        .GetFileUseState = Guarded(GetFileUseState),
        .NativePath = NativePath,
    };
}

}  // namespace platform

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <mutex>
#include <shared_mutex>

#include "platform/guarded.h"
#include "platform/owned_handle.h"
#include "platform/windows/file_search.h"
#include "platform/windows/system_handle.h"
#include "platform/windows/win32.h"

// After the system's main header, which it needs.
#include <direct.h>

namespace platform {

namespace {

constexpr std::size_t largestTransfer = 1U << 30;  // bytes in one call

/// Virus scanners and indexers open for a moment what has just been written, and nobody can rename it meanwhile.
constexpr int looksOfOthers = 10;
constexpr DWORD lookOfAnother = 20;  // milliseconds

HANDLE SystemFileOf(FileHandle file) { return reinterpret_cast<HANDLE>(file); }

DWORD AccessOf(FileAccess access) {
    switch (access) {
        case FileAccess::read:
            return GENERIC_READ;
        case FileAccess::write:
            return GENERIC_WRITE;
        case FileAccess::readWrite:
            return GENERIC_READ | GENERIC_WRITE;
        case FileAccess::append:
            return FILE_APPEND_DATA;
    }
    return 0;
}

/// Renaming and deleting are always shared, because they do not disturb those who read or write.
DWORD SharingOf(FileShare share) {
    switch (share) {
        case FileShare::none:
            return FILE_SHARE_DELETE;
        case FileShare::read:
            return FILE_SHARE_DELETE | FILE_SHARE_READ;
        case FileShare::readWrite:
            return FILE_SHARE_DELETE | FILE_SHARE_READ | FILE_SHARE_WRITE;
    }
    return 0;
}

DWORD DispositionOf(FileDisposition disposition) {
    switch (disposition) {
        case FileDisposition::openExisting:
            return OPEN_EXISTING;
        case FileDisposition::openAlways:
            return OPEN_ALWAYS;
        case FileDisposition::createAlways:
            return CREATE_ALWAYS;
        case FileDisposition::createNew:
            return CREATE_NEW;
    }
    return 0;
}

/// Calls again while another program looks at the file. A call that replaces a file then fails with accessDenied.
template <class Call>
Error PastOthers(const Call& call, bool replaces = false) {
    Error result = ResultOf(call());
    for (int look = 0; look < looksOfOthers; ++look) {
        if (result != error::sharingViolation && !(replaces && result == error::accessDenied)) break;
        ::Sleep(lookOfAnother);
        result = ResultOf(call());
    }
    return result;
}

/// Keeps this process's own opens for writing apart from GetFileUseState, which would make them fail. Many of them may
/// run at a time.
struct OpensForWriting {
    SRWLOCK held = SRWLOCK_INIT;

    void lock() { ::AcquireSRWLockExclusive(&held); }
    void unlock() { ::ReleaseSRWLockExclusive(&held); }
    void lock_shared() { ::AcquireSRWLockShared(&held); }
    void unlock_shared() { ::ReleaseSRWLockShared(&held); }
};

OpensForWriting opensForWriting;

/// Refuses what is not a file, such as "NUL" or "COM1" in any directory.
Error CreateFileW(std::u16string_view path, FileAccess access, FileShare share, FileDisposition disposition,
                  FileHandle& file) {
    file = 0;
    const std::wstring native = NativePathOf(path);
    const bool isNew = disposition == FileDisposition::createNew;
    SystemHandle opened;
    const auto open = [&]() -> BOOL {
        std::shared_lock writing(opensForWriting, std::defer_lock);
        if (access != FileAccess::read) writing.lock();
        opened =
            OwnedFile(::CreateFileW(native.c_str(), AccessOf(access), SharingOf(share), nullptr,
                                    DispositionOf(disposition), isNew ? FILE_FLAG_OPEN_REPARSE_POINT : 0, nullptr));
        return static_cast<bool>(opened);
    };
    const Error failure = access == FileAccess::read ? ResultOf(open()) : PastOthers(open);
    if (failure != error::success) return failure == error::fileExists ? error::alreadyExists : failure;
    if (::GetFileType(opened.get()) != FILE_TYPE_DISK) return error::invalidName;
    file = reinterpret_cast<FileHandle>(opened.Release());
    return error::success;
}

Error ReadFile(FileHandle file, void* buffer, std::size_t size, std::size_t& read) {
    DWORD count = 0;
    const auto wanted = static_cast<DWORD>(std::min(size, largestTransfer));
    const Error result = ResultOf(::ReadFile(SystemFileOf(file), buffer, wanted, &count, nullptr));
    read = count;
    return result;
}

Error WriteFile(FileHandle file, const void* data, std::size_t size) {
    const char* bytes = static_cast<const char*>(data);
    while (size > 0) {
        DWORD count = 0;
        const auto wanted = static_cast<DWORD>(std::min(size, largestTransfer));
        if (!::WriteFile(SystemFileOf(file), bytes, wanted, &count, nullptr)) return LastError();
        if (count == 0) return error::writeFault;
        bytes += count;
        size -= count;
    }
    return error::success;
}

/// In pieces that need no memory, because the log must be written even when memory has run out.
Error WriteText(FileHandle file, std::string_view text) {
    std::array<char, 4096> piece;
    std::size_t used = 0;
    for (const char character : text) {
        if (character == '\n') piece[used++] = '\r';
        piece[used++] = character;
        if (used < piece.size() - 1) continue;
        if (const Error failure = WriteFile(file, piece.data(), used); failure != error::success) return failure;
        used = 0;
    }
    return WriteFile(file, piece.data(), used);
}

Error MovePointer(FileHandle file, std::uint64_t distance, DWORD from, std::uint64_t& offset) {
    LARGE_INTEGER wanted;
    LARGE_INTEGER reached{};
    wanted.QuadPart = static_cast<LONGLONG>(distance);
    const Error result = ResultOf(::SetFilePointerEx(SystemFileOf(file), wanted, &reached, from));
    offset = static_cast<std::uint64_t>(reached.QuadPart);
    return result;
}

Error SetFilePointerEx(FileHandle file, std::uint64_t offset) {
    std::uint64_t reached = 0;
    return MovePointer(file, offset, FILE_BEGIN, reached);
}

Error GetFilePointer(FileHandle file, std::uint64_t& offset) { return MovePointer(file, 0, FILE_CURRENT, offset); }

Error GetFileSizeEx(FileHandle file, std::uint64_t& size) {
    LARGE_INTEGER given{};
    const Error result = ResultOf(::GetFileSizeEx(SystemFileOf(file), &given));
    size = static_cast<std::uint64_t>(given.QuadPart);
    return result;
}

std::uint64_t Joined(DWORD high, DWORD low) { return std::uint64_t{high} << 32 | low; }

std::uint64_t TicksOf(const FILETIME& time) { return Joined(time.dwHighDateTime, time.dwLowDateTime); }

LARGE_INTEGER SystemTimeOf(std::uint64_t ticks) {
    LARGE_INTEGER time;
    time.QuadPart = static_cast<LONGLONG>(ticks);
    return time;
}

Error GetFileInformationByHandle(FileHandle file, FileInformation& information) {
    BY_HANDLE_FILE_INFORMATION given{};
    if (!::GetFileInformationByHandle(SystemFileOf(file), &given)) return LastError();
    information.attributes = given.dwFileAttributes;
    information.creationTime = TicksOf(given.ftCreationTime);
    information.lastAccessTime = TicksOf(given.ftLastAccessTime);
    information.lastWriteTime = TicksOf(given.ftLastWriteTime);
    information.size = Joined(given.nFileSizeHigh, given.nFileSizeLow);
    return error::success;
}

/// Attributes of 0 would be left alone by the system, as times of 0 are.
Error SetFileInformationByHandle(FileHandle file, const FileInformation& information) {
    constexpr DWORD settable = FILE_ATTRIBUTE_READONLY | FILE_ATTRIBUTE_HIDDEN | FILE_ATTRIBUTE_SYSTEM |
                               FILE_ATTRIBUTE_ARCHIVE | FILE_ATTRIBUTE_NOT_CONTENT_INDEXED;
    FILE_BASIC_INFO basic{};
    basic.CreationTime = SystemTimeOf(information.creationTime);
    basic.LastAccessTime = SystemTimeOf(information.lastAccessTime);
    basic.LastWriteTime = SystemTimeOf(information.lastWriteTime);
    basic.FileAttributes = information.attributes & settable;
    if (basic.FileAttributes == 0) basic.FileAttributes = FILE_ATTRIBUTE_NORMAL;
    return ResultOf(::SetFileInformationByHandle(SystemFileOf(file), FileBasicInfo, &basic, sizeof basic));
}

Error GetFileAttributesW(std::u16string_view path, std::uint32_t& attributes) {
    const DWORD given = ::GetFileAttributesW(NativePathOf(path).c_str());
    if (given == INVALID_FILE_ATTRIBUTES) return LastError();
    attributes = given;
    return error::success;
}

/// Makes a call that replaces or deletes the file at a path, even if it is read-only, hidden or the system's. After a
/// failure the file has these attributes again.
template <class Call>
Error Replace(const std::wstring& path, const Call& call) {
    if (call()) return error::success;
    const Error refusal = LastError();
    const DWORD attributes = ::GetFileAttributesW(path.c_str());
    const bool exists = attributes != INVALID_FILE_ATTRIBUTES;
    if (exists && (attributes & FILE_ATTRIBUTE_DIRECTORY) != 0) return refusal;
    const bool mayBeProtected = exists && refusal == error::accessDenied;
    if (mayBeProtected) ::SetFileAttributesW(path.c_str(), FILE_ATTRIBUTE_NORMAL);
    const Error result = PastOthers(call, exists);
    if (mayBeProtected && result != error::success) ::SetFileAttributesW(path.c_str(), attributes);
    return result;
}

/// When the system reports a copy as made, it may still be on its way to the disk. A read-only one stays so.
Error BringToDisk(const std::wstring& path) {
    SystemHandle file;
    const Error refusal = PastOthers([&]() -> BOOL {
        file = OwnedFile(::CreateFileW(path.c_str(), GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_DELETE, nullptr,
                                       OPEN_EXISTING, 0, nullptr));
        return static_cast<bool>(file);
    });
    if (refusal != error::success) return refusal == error::accessDenied ? error::success : refusal;
    return ResultOf(::FlushFileBuffers(file.get()));
}

/// Who locks does not share deleting, which tells, and keeps its number to itself. A lock that is asked for at this
/// very moment looks again and finds the file free.
Error FindDirectoryLock(std::u16string_view directory, std::u16string_view /*place*/, std::u16string_view fileName,
                        std::vector<std::uint32_t>& processes) {
    processes.clear();
    const std::wstring path = NativePathOf(std::u16string(directory) + u'\\' + std::u16string(fileName));
    const SystemHandle file =
        OwnedFile(::CreateFileW(path.c_str(), DELETE, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
                                OPEN_EXISTING, 0, nullptr));
    if (file) return error::fileNotFound;
    const Error refusal = LastError();
    if (refusal == error::sharingViolation) return error::success;
    return refusal == error::pathNotFound ? error::fileNotFound : refusal;
}

/// Deleting is not shared, unlike elsewhere: a file of that name that is made later could be locked beside this one. A
/// locked byte can be read by its owner alone, so it lies far behind the end of the file.
Error LockDirectory(std::u16string_view directory, std::u16string_view /*place*/, std::u16string_view fileName,
                    DirectoryLock& lock) {
    lock = {};
    const std::wstring path = NativePathOf(std::u16string(directory) + u'\\' + std::u16string(fileName));
    SystemHandle file;
    const Error refusal = PastOthers([&]() -> BOOL {
        file = OwnedFile(::CreateFileW(path.c_str(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr,
                                       OPEN_ALWAYS, 0, nullptr));
        return static_cast<bool>(file);
    });
    if (refusal != error::success) return refusal;
    OVERLAPPED where{};
    where.OffsetHigh = 0x40000000;
    if (!::LockFileEx(file.get(), LOCKFILE_EXCLUSIVE_LOCK | LOCKFILE_FAIL_IMMEDIATELY, 0, 1, 0, &where))
        return LastError();
    lock.directory = reinterpret_cast<FileHandle>(file.Release());
    return error::success;
}

Error CopyFileW(std::u16string_view from, std::u16string_view to) {
    const std::wstring source = NativePathOf(from);
    const std::wstring target = NativePathOf(to);
    const Error result = Replace(target, [&] { return ::CopyFileW(source.c_str(), target.c_str(), FALSE); });
    return result == error::success ? BringToDisk(target) : result;
}

Error MoveFileExW(std::u16string_view from, std::u16string_view to, MoveTarget existing) {
    const std::wstring source = NativePathOf(from);
    const std::wstring target = NativePathOf(to);
    const bool isReplaced = existing == MoveTarget::isReplaced;
    const DWORD flags = MOVEFILE_WRITE_THROUGH | (isReplaced ? DWORD{MOVEFILE_REPLACE_EXISTING} : 0);
    const auto move = [&] { return ::MoveFileExW(source.c_str(), target.c_str(), flags); };
    return isReplaced ? Replace(target, move) : PastOthers(move);
}

/// A link to a directory is a file to the agent and a directory to the system, which removes only the link.
Error DeleteFileW(std::u16string_view path) {
    constexpr DWORD linked = FILE_ATTRIBUTE_DIRECTORY | FILE_ATTRIBUTE_REPARSE_POINT;
    const std::wstring native = NativePathOf(path);
    const DWORD attributes = ::GetFileAttributesW(native.c_str());
    if (attributes != INVALID_FILE_ATTRIBUTES && (attributes & linked) == linked) {
        return PastOthers([&] { return ::RemoveDirectoryW(native.c_str()); });
    }
    return Replace(native, [&] { return ::DeleteFileW(native.c_str()); });
}

bool IsDirectory(std::u16string_view path) {
    const DWORD attributes = ::GetFileAttributesW(NativePathOf(path).c_str());
    return attributes != INVALID_FILE_ATTRIBUTES && (attributes & FILE_ATTRIBUTE_DIRECTORY) != 0;
}

Error GetDiskFreeSpaceExW(std::u16string_view directory, std::uint64_t& available) {
    ULARGE_INTEGER free{};
    const BOOL known = ::GetDiskFreeSpaceExW(NativePathOf(directory).c_str(), &free, nullptr, nullptr);
    available = free.QuadPart;
    return ResultOf(known);
}

int MakeDirectory(std::u16string_view path) { return ::_wmkdir(NativePathOf(path).c_str()) == 0 ? 0 : errno; }

int ChangeDirectory(std::u16string_view path) { return ::_wchdir(NativePathOf(path).c_str()) == 0 ? 0 : errno; }

int GetWorkingDirectory(std::u16string& path) {
    const std::unique_ptr<wchar_t, ReleasedBy<std::free>> given(::_wgetcwd(nullptr, 0));
    if (!given) return errno;
    path = Utf16FromWide(given.get());
    return 0;
}

/// A path that begins at a root is folded, "bin\\..\\conf" to "conf"; the system does that likewise before it looks.
std::u16string NativePath(std::u16string_view path) {
    const std::filesystem::path native(NativePathOf(path));
    return Utf16FromWide((native.is_absolute() ? native.lexically_normal() : native).wstring());
}

/// The open fails while anyone has the file open for writing, because it does not share writing.
Error GetFileUseState(std::u16string_view path) {
    const std::lock_guard apart(opensForWriting);
    const SystemHandle file =
        OwnedFile(::CreateFileW(NativePathOf(path).c_str(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_DELETE, nullptr,
                                OPEN_EXISTING, 0, nullptr));
    return file ? error::success : LastError();
}

}  // namespace

FileOperations WindowsFiles() {
    return {
        .FindFirstFileW = Guarded(FindFirstMatch),
        .FindNextFileW = Guarded(FindNextMatch),
        .FindClose = EndSearch,
        .CreateFileW = Guarded(CreateFileW),
        .ReadFile = ReadFile,
        .WriteFile = WriteFile,
        .WriteText = WriteText,
        .SetFilePointerEx = SetFilePointerEx,
        .GetFilePointer = GetFilePointer,
        .GetFileSizeEx = GetFileSizeEx,
        .GetFileInformationByHandle = GetFileInformationByHandle,
        .SetFileInformationByHandle = SetFileInformationByHandle,
        .GetFileAttributesW = Guarded(GetFileAttributesW),
        .LetEveryoneRead = [](FileHandle) { return error::success; },
        .FlushFileBuffers = [](FileHandle file) { return ResultOf(::FlushFileBuffers(SystemFileOf(file))); },
        .LockDirectory = Guarded(LockDirectory),
        .FindDirectoryLock = Guarded(FindDirectoryLock),
        .CloseHandle = [](FileHandle file) { return ResultOf(::CloseHandle(SystemFileOf(file))); },
        .CopyFileW = Guarded(CopyFileW),
        .MoveFileExW = Guarded(MoveFileExW),
        .DeleteFileW = Guarded(DeleteFileW),
        .RemoveDirectoryW =
            Guarded([](std::u16string_view path) { return ResultOf(::RemoveDirectoryW(NativePathOf(path).c_str())); }),
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

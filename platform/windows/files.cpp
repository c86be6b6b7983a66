#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <memory>

#include "platform/windows/file_search.h"
#include "platform/windows/owned_handle.h"
#include "platform/windows/win32.h"

// After the system's main header, which it needs.
#include <direct.h>

namespace platform {

namespace {

constexpr std::size_t largestTransfer = 1U << 30;  // bytes in one call

/// Scanners of viruses and indexers open what has just been written, for a moment, and let nobody rename it meanwhile.
constexpr int looksOfOthers = 10;
constexpr DWORD lookOfAnother = 20;  // milliseconds

HANDLE HandleOf(FileHandle file) { return reinterpret_cast<HANDLE>(file); }

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

/// Renaming and deleting are always shared, as they do not disturb whoever reads or writes.
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

Error CreateFileW(std::u16string_view path, FileAccess access, FileShare share, FileDisposition disposition,
                  FileHandle& file) {
    file = 0;
    OwnedHandle opened(::CreateFileW(NativePathOf(path).c_str(), AccessOf(access), SharingOf(share), nullptr,
                                     DispositionOf(disposition), FILE_ATTRIBUTE_NORMAL, nullptr));
    if (!opened) {
        const Error failure = LastError();
        return failure == error::fileExists ? error::alreadyExists : failure;
    }
    file = reinterpret_cast<FileHandle>(opened.Release());
    return error::success;
}

Error ReadFile(FileHandle file, void* buffer, std::size_t size, std::size_t& read) {
    DWORD count = 0;
    const auto wanted = static_cast<DWORD>(std::min(size, largestTransfer));
    const Error result = ResultOf(::ReadFile(HandleOf(file), buffer, wanted, &count, nullptr));
    read = count;
    return result;
}

Error WriteFile(FileHandle file, const void* data, std::size_t size) {
    const char* bytes = static_cast<const char*>(data);
    while (size > 0) {
        DWORD count = 0;
        const auto wanted = static_cast<DWORD>(std::min(size, largestTransfer));
        if (!::WriteFile(HandleOf(file), bytes, wanted, &count, nullptr)) return LastError();
        if (count == 0) return error::writeFault;
        bytes += count;
        size -= count;
    }
    return error::success;
}

Error MovePointer(FileHandle file, std::uint64_t distance, DWORD from, std::uint64_t& offset) {
    LARGE_INTEGER wanted;
    LARGE_INTEGER reached{};
    wanted.QuadPart = static_cast<LONGLONG>(distance);
    const Error result = ResultOf(::SetFilePointerEx(HandleOf(file), wanted, &reached, from));
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
    const Error result = ResultOf(::GetFileSizeEx(HandleOf(file), &given));
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
    if (!::GetFileInformationByHandle(HandleOf(file), &given)) return LastError();
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
    return ResultOf(::SetFileInformationByHandle(HandleOf(file), FileBasicInfo, &basic, sizeof basic));
}

Error GetFileAttributesW(std::u16string_view path, std::uint32_t& attributes) {
    const DWORD given = ::GetFileAttributesW(NativePathOf(path).c_str());
    if (given == INVALID_FILE_ATTRIBUTES) return LastError();
    attributes = given;
    return error::success;
}

/// A file that is read-only, hidden or the system's would not be replaced or deleted.
void MakeReplaceable(const std::wstring& path) {
    constexpr DWORD inTheWay = FILE_ATTRIBUTE_READONLY | FILE_ATTRIBUTE_HIDDEN | FILE_ATTRIBUTE_SYSTEM;
    const DWORD attributes = ::GetFileAttributesW(path.c_str());
    if (attributes == INVALID_FILE_ATTRIBUTES || (attributes & FILE_ATTRIBUTE_DIRECTORY) != 0) return;
    if ((attributes & inTheWay) != 0) ::SetFileAttributesW(path.c_str(), FILE_ATTRIBUTE_NORMAL);
}

/// Calls again while another program looks at the file.
template <class Call>
Error PastOthers(Call call) {
    for (int look = 0; look < looksOfOthers; ++look, ::Sleep(lookOfAnother)) {
        const Error result = ResultOf(call());
        if (result != error::sharingViolation) return result;
    }
    return ResultOf(call());
}

Error CopyFileW(std::u16string_view from, std::u16string_view to) {
    const std::wstring source = NativePathOf(from);
    const std::wstring target = NativePathOf(to);
    MakeReplaceable(target);
    return PastOthers([&] { return ::CopyFileW(source.c_str(), target.c_str(), FALSE); });
}

Error MoveFileExW(std::u16string_view from, std::u16string_view to, bool replaceExisting) {
    const std::wstring source = NativePathOf(from);
    const std::wstring target = NativePathOf(to);
    if (replaceExisting) MakeReplaceable(target);
    const DWORD flags = MOVEFILE_WRITE_THROUGH | (replaceExisting ? DWORD{MOVEFILE_REPLACE_EXISTING} : 0);
    return PastOthers([&] { return ::MoveFileExW(source.c_str(), target.c_str(), flags); });
}

Error DeleteFileW(std::u16string_view path) {
    const std::wstring native = NativePathOf(path);
    MakeReplaceable(native);
    return PastOthers([&] { return ::DeleteFileW(native.c_str()); });
}

bool IsDirectory(std::u16string_view path) {
    const DWORD attributes = ::GetFileAttributesW(NativePathOf(path).c_str());
    return attributes != INVALID_FILE_ATTRIBUTES && (attributes & FILE_ATTRIBUTE_DIRECTORY) != 0;
}

int MakeDirectory(std::u16string_view path) { return ::_wmkdir(NativePathOf(path).c_str()) == 0 ? 0 : errno; }

int ChangeDirectory(std::u16string_view path) { return ::_wchdir(NativePathOf(path).c_str()) == 0 ? 0 : errno; }

int GetWorkingDirectory(std::u16string& path) {
    const std::unique_ptr<wchar_t, decltype(&std::free)> given(::_wgetcwd(nullptr, 0), std::free);
    if (!given) return errno;
    path = TextOf(given.get());
    return 0;
}

/// Whoever writes does not share what this asks for: to read with other readers only.
Error GetFileUseState(std::u16string_view path) {
    const OwnedHandle file(::CreateFileW(NativePathOf(path).c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr,
                                         OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr));
    return file ? error::success : LastError();
}

}  // namespace

FileOperations WindowsFiles() {
    return {
        .FindFirstFileW = FindFirstMatch,
        .FindNextFileW = FindNextMatch,
        .FindClose = EndSearch,
        .CreateFileW = CreateFileW,
        .ReadFile = ReadFile,
        .WriteFile = WriteFile,
        .SetFilePointerEx = SetFilePointerEx,
        .GetFilePointer = GetFilePointer,
        .GetFileSizeEx = GetFileSizeEx,
        .GetFileInformationByHandle = GetFileInformationByHandle,
        .SetFileInformationByHandle = SetFileInformationByHandle,
        .GetFileAttributesW = GetFileAttributesW,
        .FlushFileBuffers = [](FileHandle file) { return ResultOf(::FlushFileBuffers(HandleOf(file))); },
        .CloseHandle = [](FileHandle file) { return ResultOf(::CloseHandle(HandleOf(file))); },
        .CopyFileW = CopyFileW,
        .MoveFileExW = MoveFileExW,
        .DeleteFileW = DeleteFileW,
        .RemoveDirectoryW =
            [](std::u16string_view path) { return ResultOf(::RemoveDirectoryW(NativePathOf(path).c_str())); },
        .IsDirectory = IsDirectory,
        .wmkdir = MakeDirectory,
        .wchdir = ChangeDirectory,
        .wgetcwd = GetWorkingDirectory,
        .GetFileUseState = GetFileUseState,
        .NativePath = [](std::u16string_view path) { return TextOf(NativePathOf(path)); },
    };
}

}  // namespace platform

#include "foundation/file_utils.h"

#include <algorithm>
#include <array>
#include <exception>
#include <filesystem>

#include "foundation/log.h"
#include "foundation/open_file.h"
#include "foundation/text.h"
#include "platform/clock.h"
#include "platform/files.h"
#include "platform/utf.h"

namespace kv {

namespace {

using platform::Error;
using platform::FileAccess;
using platform::FileDisposition;
using platform::Files;
using platform::FileShare;
namespace error = platform::error;

constexpr std::uint32_t busyFilePause = 250;  // milliseconds

/// Removes one entry of a directory; true when it is gone.
bool DeleteEntry(std::u16string_view directory, const platform::FindData& entry) {
    if (entry.isDirectory && (entry.fileName == u"." || entry.fileName == u"..")) return true;
    const std::u16string child = std::u16string(directory) + u"\\" + entry.fileName;
    if (entry.isDirectory) return DeleteDirectoryRecursively(child) == 1;
    return Files().DeleteFileW(child) == error::success;
}

Error ReadToEnd(platform::FileHandle file, std::string& content, std::uint64_t largest) {
    std::array<char, 16384> buffer;
    std::uint64_t size = 0;
    if (Files().GetFileSizeEx(file, size) == error::success && size <= largest) content.reserve(size);
    while (size <= largest) {
        std::size_t read = 0;
        const Error result = Files().ReadFile(file, buffer.data(), buffer.size(), read);
        if (result != error::success || read == 0) return result;
        content.append(buffer.data(), read);
        size = content.size();  // of a file that grows
    }
    return error::moreData;
}

Error WriteAndFlush(std::u16string_view path, std::string_view bytes) {
    OpenFile file;
    if (const Error result = file.Open(path, FileAccess::write, FileShare::none, FileDisposition::createAlways))
        return result;
    if (const Error result = Files().WriteFile(file.handle, bytes.data(), bytes.size())) return result;
    if (const Error result = Files().FlushFileBuffers(file.handle)) return result;
    return file.Close();
}

}  // namespace

int DeleteDirectoryRecursively(std::u16string_view path) {
    Log3("\t Inside DeleteDirectoryRecursively() \n");
    int result = 1;
    {
        FileSearch search(std::u16string(path) + u"\\*");
        if (!search.hasFile()) {
            Log1("\t DeleteDirectoryRecursively :: Invalid File Handle, path : %s \n", path);
            return 1;
        }
        // The first entry is the directory's own "." and is not looked at.
        for (search.Next(); search.hasFile(); search.Next()) {
            if (!DeleteEntry(path, search.file)) result = 0;
        }
    }
    if (Files().RemoveDirectoryW(path) != error::success) result = 0;
    return result;
}

void ClearDirectoryFromPath(std::u16string_view path) {
    if (!Files().IsDirectory(path)) return;
    const int deleted = DeleteDirectoryRecursively(path);
    Log1("\t ClearDirectoryFromPath :: [%s] is a directory where a file belongs. Deleted [%d]\n", path, deleted);
}

bool CheckFileExists(std::u16string_view path) {
    Log4("\t Inside CheckFileExists() \n");
    const FileSearch search(path);
    if (!search.hasFile()) Log1("CheckFileExists -> Invalid File Handle. %d \n", search.error);
    return search.hasFile();
}

bool IsDirectory(std::u16string_view path) { return Files().IsDirectory(path); }

int fileExists(std::u16string_view fileName) {
    Log4("\t Inside fileExists() \n");
    if (IsDirectory(fileName)) {
        Log1("\t fileExists() :: Directory doesnot exists\n");
        return 0;
    }
    OpenFile file;
    return file.Open(fileName, FileAccess::read, FileShare::readWrite, FileDisposition::openExisting) == error::success;
}

bool MayExist(std::u16string_view path) {
    std::uint32_t attributes = 0;
    const Error result = Files().GetFileAttributesW(path, attributes);
    return result != error::fileNotFound && result != error::pathNotFound;
}

int GetZipFileCount(std::u16string_view pattern) {
    Log3("\t Inside GetZipFileCount() \n");
    FileSearch search(std::u16string(pattern) + u".zip");
    if (!search.hasFile()) {
        Log1("\t GetZipFileCount : Invalid File Handle. Error is %u", search.error);
        return 0;
    }
    int count = 0;
    for (; search.hasFile(); search.Next()) ++count;
    if (search.error != error::noMoreFiles)
        Log1("\t GetZipFileCount - FindNextFile Error. Error is %u \n", search.error);
    return count;
}

bool StaysBelowDirectory(std::u16string_view path) {
    constexpr std::u16string_view separators = u"\\/";
    if (path.empty() || separators.find(path.front()) != path.npos) return false;
    if (path.size() > 1 && path[1] == u':') return false;
    for (std::size_t start = 0; start < path.size();) {
        const std::size_t end = std::min(path.find_first_of(separators, start), path.size());
        // Windows takes dots and blanks at the end of a part away, so ".. " would climb as well.
        const std::u16string_view part = path.substr(start, end - start);
        if (part.size() > 1 && part.find_first_not_of(u". ") == part.npos) return false;
        start = end + 1;
    }
    return true;
}

bool IsPlainFileName(std::u16string_view name) {
    if (name.empty() || name.ends_with(u'.') || name.ends_with(u' ')) return false;
    return std::none_of(name.begin(), name.end(), [](char16_t unit) {
        return unit < u' ' || FindChar(u"\\/:*?\"<>|", unit) != std::u16string_view::npos;
    });
}

bool HasRoomFor(std::u16string_view directory, std::uint64_t bytes, std::u16string_view what, std::string_view next) {
    Log4("\t Inside HasRoomFor() \n");
    std::uint64_t available = 0;
    const Error result = Files().GetDiskFreeSpaceExW(directory, available);
    if (result != error::success || available >= bytes) return true;
    Log1(
        "\t HasRoomFor :: No room for [%s] in [%s]. [%llu] bytes are needed, [%llu] are free, [%llu] are missing. %s\n",
        what, directory, bytes, available, bytes - available, next);
    return false;
}

FileUse IsFileisOpen(std::u16string_view path) {
    Log4("\t Inside IsFileisOpen() \n");
    const Error result = Files().GetFileUseState(path);
    if (result == error::success) return FileUse::free;
    if (result == error::sharingViolation) {
        platform::Clock().Sleep(busyFilePause);
        return FileUse::inUse;
    }
    Log1(" IsFileisOpen :: Error Occured [%d]\n", result);
    return FileUse::unknown;
}

Error ReadWholeFile(std::u16string_view path, std::string& content, std::uint64_t largest) {
    Log4("\t Inside ReadWholeFile() \n");
    content.clear();
    OpenFile file;
    if (const Error result = file.Open(path, FileAccess::read, FileShare::readWrite, FileDisposition::openExisting))
        return result;
    try {
        return ReadToEnd(file.handle, content, largest);
    } catch (const std::exception&) {  // larger than memory
        return error::notEnoughMemory;
    }
}

Error WriteCompleteFile(std::u16string_view path, std::u16string_view temporaryPath, std::string_view bytes) {
    Log4("\t Inside WriteCompleteFile() \n");
    Error result = WriteAndFlush(temporaryPath, bytes);
    if (result == error::success) result = Files().MoveFileExW(temporaryPath, path, platform::MoveTarget::isReplaced);
    if (result != error::success) Files().DeleteFileW(temporaryPath);
    return result;
}

Error ReplaceFile(std::u16string_view path, std::u16string_view temporaryPath, std::string_view bytes,
                  Readers readers) {
    std::uint32_t standing = 0;
    if (Files().GetFileAttributesW(path, standing) == error::success &&
        (standing & platform::file_attribute::device) != 0) {
        return error::alreadyExists;
    }
    Files().DeleteFileW(temporaryPath);
    OpenFile file;
    Error result = file.Open(temporaryPath, FileAccess::write, FileShare::none, FileDisposition::createNew);
    if (result != error::success) return result;
    if (readers == Readers::everyone) result = Files().LetEveryoneRead(file.handle);
    if (result == error::success) result = Files().WriteFile(file.handle, bytes.data(), bytes.size());
    const Error closed = file.Close();
    if (result == error::success) result = closed;
    if (result == error::success) result = Files().MoveFileExW(temporaryPath, path, platform::MoveTarget::isReplaced);
    if (result != error::success) Files().DeleteFileW(temporaryPath);
    return result;
}

bool IsWholePath(std::u16string_view path) {
    std::string text = platform::Utf8FromWide(path);
    std::replace(text.begin(), text.end(), '\\', '/');
    const bool isOnDrive = text.size() > 2 && text[1] == ':' && text[2] == '/';
    return isOnDrive || std::filesystem::path(text).is_absolute();
}

bool EndsInSeparator(std::u16string_view path) { return path.ends_with(u'\\') || path.ends_with(u'/'); }

std::string Utf16LittleEndianBytes(std::u16string_view text) {
    std::string bytes(text.size() * 2, '\0');
    for (std::size_t i = 0; i < text.size(); ++i) {
        bytes[2 * i] = static_cast<char>(text[i] & 0xFF);
        bytes[2 * i + 1] = static_cast<char>(text[i] >> 8);
    }
    return bytes;
}

std::u16string TextFromUtf16LittleEndian(std::string_view bytes) {
    std::u16string text(bytes.size() / 2, u'\0');
    for (std::size_t i = 0; i < text.size(); ++i) {
        const auto low = static_cast<unsigned char>(bytes[2 * i]);
        const auto high = static_cast<unsigned char>(bytes[2 * i + 1]);
        text[i] = static_cast<char16_t>(low | high << 8);
    }
    return text;
}

}  // namespace kv

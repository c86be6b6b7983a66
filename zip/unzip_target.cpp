#include "zip/unzip_target.h"

#include "foundation/log.h"
#include "foundation/system_error.h"
#include "zip/zip_item_name.h"

namespace kv {

namespace {

using platform::Error;
using platform::Files;
namespace error = platform::error;
namespace attribute = platform::file_attribute;

constexpr std::u16string_view separators = u"\\/";

/// Calls `use` with the path up to each of its separators and up to its end, outermost first; stops at a failure.
template <class Use>
ZipResult ForEachDirectory(std::u16string_view path, const Use& use) {
    for (std::size_t start = 0; start < path.size();) {
        const std::size_t end = std::min(path.find_first_of(separators, start), path.size());
        if (end > start) {
            if (const ZipResult result = use(path.substr(0, end)); result != zip_result::ok) return result;
        }
        start = end + 1;
    }
    return zip_result::ok;
}

/// failure is the C error number of the last attempt.
ZipResult CannotMake(std::u16string_view path, int failure) {
    Log1("\t UnzipItem :: The directory [%s] cannot be made. errno is [%d]\n", path, failure);
    return zip_result::noFile;
}

/// Makes a directory below the base unless it is there.
ZipResult EnterDirectory(std::u16string_view path) {
    std::uint32_t attributes = 0;
    if (Files().GetFileAttributesW(path, attributes) != error::success) {
        const int failure = Files().wmkdir(path);
        if (failure == 0) return zip_result::ok;
        // Someone else may have been faster.
        if (Files().GetFileAttributesW(path, attributes) != error::success) return CannotMake(path, failure);
    }
    if ((attributes & attribute::reparsePoint) != 0) {
        Log1("\t UnzipItem :: [%s] is a link, and is not followed\n", path);
        return zip_result::badArguments;
    }
    if ((attributes & attribute::directory) != 0) return zip_result::ok;
    Log1("\t UnzipItem :: [%s] is a file where a directory should be\n", path);
    return zip_result::noFile;
}

Error CreateNew(std::u16string_view path, OpenFile& file) {
    return file.Open(path, platform::FileAccess::write, platform::FileShare::none,
                     platform::FileDisposition::createNew);
}

/// Deletes a file, or a link but not what it leads to.
Error DeleteOld(std::u16string_view path) {
    std::uint32_t attributes = 0;
    const Error result = Files().GetFileAttributesW(path, attributes);
    if (result == error::success && (attributes & attribute::directory) != 0) {
        Log1("\t UnzipItem :: [%s] is a directory where a file should be\n", path);
        return error::accessDenied;
    }
    return Files().DeleteFileW(path);
}

}  // namespace

std::u16string_view DirectoryOf(std::u16string_view path) {
    const std::size_t last = path.find_last_of(separators);
    return last == path.npos ? std::u16string_view() : path.substr(0, last + 1);
}

bool IsAbsoluteTarget(std::u16string_view path) {
    const std::u16string_view directory = DirectoryOf(path);
    if (directory.empty()) return false;
    return separators.find(directory.front()) != separators.npos || (directory.size() > 1 && directory[1] == u':');
}

ZipResult MakeDirectories(std::u16string_view path) {
    if (path.empty() || Files().IsDirectory(path)) return zip_result::ok;
    int failure = 0;
    ForEachDirectory(path, [&failure](std::u16string_view directory) {
        if (!Files().IsDirectory(directory)) failure = Files().wmkdir(directory);
        return zip_result::ok;
    });
    return Files().IsDirectory(path) ? zip_result::ok : CannotMake(path, failure);
}

ZipResult MakeDirectoriesBelow(std::u16string_view base, std::u16string_view path) {
    const std::u16string root(base);
    return ForEachDirectory(
        path, [&](std::u16string_view directory) { return EnterDirectory(root + std::u16string(directory)); });
}

UnzipTarget::~UnzipTarget() {
    if (file.handle == 0) return;
    file.Close();
    Files().DeleteFileW(path);
}

ZipResult CreateTarget(std::u16string_view path, UnzipTarget& target) {
    target.path = path;
    Error result = CreateNew(path, target.file);
    if (result == error::alreadyExists) {
        result = DeleteOld(path);
        if (result == error::success) result = CreateNew(path, target.file);
    }
    if (result == error::success) return zip_result::ok;
    target.file.handle = 0;
    LogLastSystemError(result);
    return zip_result::noFile;
}

ZipResult CompleteTarget(UnzipTarget& target, const ZipItem& item) {
    const platform::FileInformation information{
        .attributes = item.attr, .creationTime = item.ctime, .lastAccessTime = item.atime, .lastWriteTime = item.mtime};
    Error result = Files().SetFileInformationByHandle(target.file.handle, information);
    if (result != error::success) {
        Log1("\t UnzipItem :: Attributes and times of [%s] cannot be set\n", target.path);
        LogLastSystemError(result);
    }
    result = target.file.Close();
    if (result == error::success) return zip_result::ok;
    LogLastSystemError(result);
    Files().DeleteFileW(target.path);
    return zip_result::writeFailed;
}

}  // namespace kv

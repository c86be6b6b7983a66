// A search reads its directory once, at its start, and walks the names it found then. What is deleted or made meanwhile
// does not disturb it.
#include "platform/linux/file_search.h"

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <memory>
#include <sys/stat.h>
#include <vector>

#include "platform/linux/linux.h"
#include "platform/name_pattern.h"
#include "platform/utf.h"

namespace platform {

namespace {

namespace fs = std::filesystem;

struct FileSearch {
    std::vector<FindData> found;
    std::size_t next = 0;
};

/// All entries of a directory that match. A symbolic link counts as a file, whatever it leads to, so that nothing that
/// walks and deletes a tree leaves the tree by it.
Error ListMatches(const std::string& directory, const NamePattern& pattern, std::vector<FindData>& found) {
    std::error_code failure;
    fs::directory_iterator entries(directory, failure);
    if (failure) return failure.value() == ENOENT ? error::pathNotFound : ErrorFromErrno(failure.value());
    for (const char16_t* itself : {u".", u".."}) {
        if (pattern.Matches(itself)) found.push_back({.fileName = itself, .isDirectory = true});
    }
    const auto sortedFrom = static_cast<std::ptrdiff_t>(found.size());
    while (entries != fs::directory_iterator()) {
        std::u16string name = WideFromUtf8(entries->path().filename().native());
        if (pattern.Matches(name)) {
            std::error_code vanished;
            const bool isDirectory = entries->symlink_status(vanished).type() == fs::file_type::directory;
            found.push_back({.fileName = std::move(name), .isDirectory = isDirectory});
        }
        entries.increment(failure);
        if (failure) return ErrorFromErrno(failure.value());
    }
    std::sort(found.begin() + sortedFrom, found.end(), ComesBefore);
    return error::success;
}

/// The one entry of a path without wildcards.
Error FindExactly(std::u16string_view path, std::u16string_view name, std::vector<FindData>& found) {
    struct stat status {};
    if (lstat(NativePathOf(path).c_str(), &status) != 0) return ErrorFromErrno(errno);
    found.push_back({.fileName = std::u16string(name), .isDirectory = S_ISDIR(status.st_mode)});
    return error::success;
}

}  // namespace

Error FindFirstFile(std::u16string_view pattern, FindData& first, FindHandle& search) {
    search = 0;
    const std::size_t split = DirectoryLength(pattern);
    const std::u16string_view name = pattern.substr(split);
    if (name.empty()) return error::fileNotFound;
    auto started = std::make_unique<FileSearch>();
    const std::string directory = split == 0 ? "." : NativePathOf(pattern.substr(0, split));
    const bool hasWildcard = name.find_first_of(u"*?") != std::u16string_view::npos;
    const Error failure = hasWildcard ? ListMatches(directory, NamePattern(name), started->found)
                                      : FindExactly(pattern, name, started->found);
    std::error_code ignored;
    if (failure == error::fileNotFound && !fs::is_directory(directory, ignored)) return error::pathNotFound;
    if (failure != error::success) return failure;
    if (started->found.empty()) return error::fileNotFound;
    first = started->found[started->next++];
    search = reinterpret_cast<FindHandle>(started.release());
    return error::success;
}

Error FindNextFile(FindHandle search, FindData& next) {
    if (search == 0) return error::invalidHandle;
    auto* running = reinterpret_cast<FileSearch*>(search);
    if (running->next == running->found.size()) return error::noMoreFiles;
    next = running->found[running->next++];
    return error::success;
}

void FindClose(FindHandle search) { delete reinterpret_cast<FileSearch*>(search); }

}  // namespace platform

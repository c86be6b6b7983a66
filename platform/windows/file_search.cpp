// A search reads its directory once, at its start, and walks the names it found then. Names are matched and sorted
// here: the system would find a file by its short name too ("*.zip" then finds "a.zipped"), and its order is the
// disk's.
#include "platform/windows/file_search.h"

#include <algorithm>
#include <memory>
#include <vector>

#include "platform/name_pattern.h"
#include "platform/owned_handle.h"
#include "platform/windows/win32.h"

namespace platform {

namespace {

struct FileSearch {
    std::vector<FindData> found;
    std::size_t next = 0;
};

/// A running search of the system's.
using SystemSearch = std::unique_ptr<void, ReleasedBy<::FindClose>>;

/// Not every reparse point is a link: a file that is stored elsewhere and fetched when it is read is one as well.
bool IsLink(const WIN32_FIND_DATAW& entry) {
    const bool isReparsePoint = (entry.dwFileAttributes & FILE_ATTRIBUTE_REPARSE_POINT) != 0;
    return isReparsePoint && IsReparseTagNameSurrogate(entry.dwReserved0);
}

FindData DataOf(const WIN32_FIND_DATAW& entry) {
    const bool isDirectory = (entry.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) != 0;
    return {.fileName = Utf16FromWide(entry.cFileName), .isDirectory = isDirectory && !IsLink(entry)};
}

bool IsItself(const FindData& entry) { return entry.fileName == u"." || entry.fileName == u".."; }

/// Why nothing is found. A directory that is a file, or whose name no file can have, counts as missing.
Error SearchError() {
    const Error failure = LastError();
    return failure == error::directoryName || failure == error::invalidName ? error::pathNotFound : failure;
}

/// Everything that the system finds by a path and that the pattern matches.
Error ListMatches(const std::wstring& path, const NamePattern& pattern, std::vector<FindData>& found) {
    WIN32_FIND_DATAW entry;
    const HANDLE handle = ::FindFirstFileW(path.c_str(), &entry);
    if (handle == INVALID_HANDLE_VALUE) return SearchError();
    const SystemSearch search(handle);
    do {
        FindData data = DataOf(entry);
        if (pattern.Matches(data.fileName)) found.push_back(std::move(data));
    } while (::FindNextFileW(search.get(), &entry));
    if (const Error end = LastError(); end != error::noMoreFiles) return end;
    const auto others = std::stable_partition(found.begin(), found.end(), IsItself);
    std::sort(others, found.end(), ComesBefore);
    return error::success;
}

}  // namespace

Error FindFirstMatch(std::u16string_view pattern, FindData& first, FindHandle& search) {
    search = 0;
    const std::size_t split = DirectoryLength(pattern);
    const std::u16string_view name = pattern.substr(split);
    if (name.empty()) return error::fileNotFound;
    const bool hasWildcard = name.find_first_of(u"*?") != name.npos;
    const std::wstring path = hasWildcard ? NativePathOf(pattern.substr(0, split)) + L"*" : NativePathOf(pattern);
    auto started = std::make_unique<FileSearch>();
    // A name without wildcards may well be a short one.
    if (const Error failure = ListMatches(path, NamePattern(hasWildcard ? name : u"*"), started->found)) return failure;
    if (started->found.empty()) return error::fileNotFound;
    first = started->found[started->next++];
    search = reinterpret_cast<FindHandle>(started.release());
    return error::success;
}

Error FindNextMatch(FindHandle search, FindData& next) {
    if (search == 0) return error::invalidHandle;
    auto* running = reinterpret_cast<FileSearch*>(search);
    if (running->next == running->found.size()) return error::noMoreFiles;
    next = running->found[running->next++];
    return error::success;
}

void EndSearch(FindHandle search) { delete reinterpret_cast<FileSearch*>(search); }

/// Most names are ASCII, and a sort asks often.
char16_t UpperCaseOf(char16_t character) {
    if (character < 0x80)
        return character >= u'a' && character <= u'z' ? static_cast<char16_t>(character - 32) : character;
    const wchar_t given = character;
    wchar_t upper = given;
    ::LCMapStringW(LOCALE_INVARIANT, LCMAP_UPPERCASE, &given, 1, &upper, 1);
    return upper;
}

}  // namespace platform

#include "exchange/waiting_files.h"

#include <algorithm>

#include "foundation/file_utils.h"
#include "foundation/open_file.h"
#include "foundation/text.h"

namespace kv {

namespace {

namespace error = platform::error;

constexpr std::u16string_view recordFolder = u"data\\";
constexpr std::u16string_view zipFolder = u"zipdata\\";

bool IsAbsent(platform::Error result) {
    return result == error::fileNotFound || result == error::pathNotFound || result == error::noMoreFiles;
}

/// Adds a file to the sum; a failure to look at it is the result.
platform::Error AddFile(std::u16string_view path, WaitingFiles& waiting) {
    OpenFile file;
    platform::FileInformation information;
    platform::Error result = file.Open(path, platform::FileAccess::read, platform::FileShare::readWrite,
                                       platform::FileDisposition::openExisting);
    if (result == error::success) result = platform::Files().GetFileInformationByHandle(file.handle, information);
    if (IsAbsent(result)) return error::success;  // it has gone meanwhile
    ++waiting.number;
    if (result != error::success) return result;
    waiting.bytes += information.size;
    const std::int64_t time = SecondsOfFileTime(information.lastWriteTime);
    waiting.oldestTime = waiting.oldestTime == 0 ? time : std::min(waiting.oldestTime, time);
    return error::success;
}

/// Whether something other than a folder, such as a file or a link that leads nowhere, stands in the folder's place.
bool IsReplaced(std::u16string folder) {
    folder.pop_back();  // the separator
    return MayExist(folder) && !IsDirectory(folder);
}

WaitingFiles Measure(const std::u16string& folder, std::u16string_view pattern) {
    WaitingFiles waiting;
    FileSearch search(ConcatStrings(folder, pattern));
    for (; search.hasFile(); search.Next()) {
        if (search.file.isDirectory) continue;
        const platform::Error result = AddFile(folder + search.file.fileName, waiting);
        if (result != error::success) waiting.error = result;
    }
    if (!IsAbsent(search.error))
        waiting.error = search.error;
    else if (search.error == error::pathNotFound && IsReplaced(folder))
        waiting.error = error::directoryName;
    return waiting;
}

}  // namespace

WaitingFiles MeasureWaitingRecords(std::u16string_view binPath) {
    return Measure(ConcatStrings(binPath, recordFolder), u"*.txt");
}

WaitingFiles MeasureWaitingZips(std::u16string_view binPath) {
    return Measure(ConcatStrings(binPath, zipFolder), u"*.zip");
}

std::uint64_t CountWaitingZips(std::u16string_view binPath) {
    std::uint64_t number = 0;
    const std::u16string pattern = ConcatStrings(binPath, zipFolder) + u"*.zip";
    for (FileSearch search(pattern); search.hasFile(); search.Next()) ++number;
    return number;
}

std::int64_t SecondsOfFileTime(std::uint64_t fileTime) {
    constexpr std::int64_t unitsInSecond = 10'000'000;
    constexpr std::int64_t from1601To1970 = 11'644'473'600;  // seconds
    return static_cast<std::int64_t>(fileTime) / unitsInSecond - from1601To1970;
}

}  // namespace kv

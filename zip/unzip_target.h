// Where an item is unpacked to: its path, the directories on the way, and the file, which is whole in the end or gone.
#pragma once

#include <string>
#include <string_view>

#include "foundation/open_file.h"
#include "zip/zip_reader.h"
#include "zip/zip_result.h"

namespace kv {

/// The part of a path up to its last separator, with it; empty where there is none.
[[nodiscard]] std::u16string_view DirectoryOf(std::u16string_view path);

/// Whether a path is taken as it stands, and not below the base directory.
[[nodiscard]] bool IsAbsoluteTarget(std::u16string_view path);

/// Makes the directories of a path that do not exist, from the outermost on. noFile, with a log line, when the last
/// does not exist after all.
[[nodiscard]] ZipResult MakeDirectories(std::u16string_view path);

/// The same for a path below a base directory, which exists: none of the directories below it may be a link.
/// badArguments when one is, noFile when one cannot be made or is a file; each with a log line.
[[nodiscard]] ZipResult MakeDirectoriesBelow(std::u16string_view base, std::u16string_view path);

/// A file that is being unpacked; unless it gets completed it is deleted at the end.
struct UnzipTarget {
    OpenFile file;
    std::u16string path;

    UnzipTarget() = default;
    UnzipTarget(const UnzipTarget&) = delete;
    UnzipTarget& operator=(const UnzipTarget&) = delete;
    ~UnzipTarget();
};

/// Creates the file new, in the place of a file or link that stands there. noFile, with a log line.
[[nodiscard]] ZipResult CreateTarget(std::u16string_view path, UnzipTarget& target);

/// Gives the file the item's attributes and times and closes it. Those it cannot be given leave a log line; writeFailed
/// when it cannot be closed.
[[nodiscard]] ZipResult CompleteTarget(UnzipTarget& target, const ZipItem& item);

}  // namespace kv

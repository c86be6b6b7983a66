// Where an item is unpacked to: its path, the directories on the way, and the file, which is whole in the end or gone.
// Results are codes of zip_result.h; std::bad_alloc may be thrown.
#pragma once

#include <string>
#include <string_view>

#include "foundation/open_file.h"
#include "zip/zip_reader.h"
#include "zip/zip_result.h"

namespace kv {

/// The part of a path up to and with its last separator; empty when it has none.
[[nodiscard]] std::u16string_view DirectoryOf(std::u16string_view path);

/// Whether a path is used as it stands, and not below the base directory: its directory begins with a separator or a
/// drive.
[[nodiscard]] bool IsAbsoluteTarget(std::u16string_view path);

/// Makes the directories of a path that do not exist, the outermost first. noFile with a log line when the last one
/// does not exist in the end.
[[nodiscard]] ZipResult MakeDirectories(std::u16string_view path);

/// The same for a path below a base directory, which exists and ends in a separator. None of the directories below it
/// may be a link: badArguments then, noFile when one cannot be made or is a file, each with a log line.
[[nodiscard]] ZipResult MakeDirectoriesBelow(std::u16string_view base, std::u16string_view path);

/// A file that is being unpacked. Unless it is completed, its end deletes it.
struct UnzipTarget {
    OpenFile file;
    std::u16string path;

    UnzipTarget() = default;
    UnzipTarget(const UnzipTarget&) = delete;
    UnzipTarget& operator=(const UnzipTarget&) = delete;
    ~UnzipTarget();
};

/// Makes a new file, in the place of a file or link that stands there. noFile with a log line when that fails.
[[nodiscard]] ZipResult CreateTarget(std::u16string_view path, UnzipTarget& target);

/// Gives the file the item's attributes and times and closes it. Those that cannot be set leave a log line. writeFailed
/// when it cannot be closed: it is then deleted.
[[nodiscard]] ZipResult CompleteTarget(UnzipTarget& target, const ZipItem& item);

}  // namespace kv

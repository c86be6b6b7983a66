// What an item is like: its attributes and times, as the archive has them, in the terms of a file.
#pragma once

#include <cstdint>

#include "zip/zip_directory.h"
#include "zip/zip_reader.h"

namespace kv {

/// FILE_ATTRIBUTE bits, from DOS attributes or a Unix mode, whichever the archive's maker writes.
std::uint32_t ItemAttributes(const ZipCentralHeader& central);

/// Describes an item. Its times come from the local header's "UT" field, then from the directory's, then from the DOS
/// date. local is null when the local header cannot be read. corrupt when the name is too long.
[[nodiscard]] ZipResult DescribeItem(const ZipCentralEntry& entry, const ZipLocalEntry* local, ZipItem& item);

}  // namespace kv

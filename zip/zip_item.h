// What an item is like: its attributes and times, as the archive has them, in the terms of a file.
#pragma once

#include <cstdint>

#include "zip/zip_directory.h"
#include "zip/zip_reader.h"

namespace kv {

/// FILE_ATTRIBUTE bits, from the DOS attributes or the Unix mode, whichever the archive's maker writes.
std::uint32_t ItemAttributes(const ZipCentralHeader& central);

/// Describes an item, except for its index. Each of its times comes from the local header's "UT" field, else from the
/// directory's, else from the DOS date. local is null when the local header cannot be read. corrupt when the name is
/// too long. May throw std::bad_alloc.
[[nodiscard]] ZipResult DescribeItem(const ZipCentralEntry& entry, const ZipLocalEntry* local, ZipItem& item);

}  // namespace kv

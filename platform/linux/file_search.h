// Searches for files by pattern, the Windows way. The contract of each routine stands in platform/files.h.
#pragma once

#include <string_view>

#include "platform/files.h"

namespace platform {

[[nodiscard]] Error FindFirstFile(std::u16string_view pattern, FindData& first, FindHandle& search);
[[nodiscard]] Error FindNextFile(FindHandle search, FindData& next);
void FindClose(FindHandle search);

}  // namespace platform

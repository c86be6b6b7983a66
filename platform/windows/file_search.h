// Searches for files by pattern. The contract of each routine stands in platform/files.h.
#pragma once

#include <string_view>

#include "platform/files.h"

namespace platform {

[[nodiscard]] Error FindFirstMatch(std::u16string_view pattern, FindData& first, FindHandle& search);
[[nodiscard]] Error FindNextMatch(FindHandle search, FindData& next);
void EndSearch(FindHandle search);

}  // namespace platform

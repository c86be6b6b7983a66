// What was probably meant by a name that nobody knows.
#pragma once

#include <span>
#include <string_view>

namespace platform {

/// The known name that is nearest to a misspelt one: the same in another letter case, or with at most a quarter of its
/// letters (but one in a name of three) added, left out, replaced or swapped with their neighbours. Empty when no name
/// is that near. Letter case is that of ASCII. The view is one of the known ones. Throws std::bad_alloc.
[[nodiscard]] std::u16string_view NearestName(std::u16string_view name, std::span<const std::u16string_view> known);

}  // namespace platform

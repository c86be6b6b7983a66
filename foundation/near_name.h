// What was probably meant by a name that nobody knows.
#pragma once

#include <span>
#include <string_view>

namespace kv {

/// The known name that is nearest to a misspelt one: the same in another letter case, or with at most a third of its
/// letters added, left out, replaced or swapped with their neighbours. Empty when no name is that near. Letter case is
/// that of ASCII. The view is one of the known ones.
[[nodiscard]] std::string_view NearestName(std::string_view name, std::span<const std::string_view> known);

}  // namespace kv

// The order of names that people expect: FLEET2 before FLEET10.
#pragma once

#include <string_view>

namespace kv::lab {

/// Whether a name stands before another: digits together count as a number, other characters by their bytes.
bool NaturallyLess(std::string_view a, std::string_view b);

}  // namespace kv::lab

// What looks like a mistake in a query, told from its text alone.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace kv::control {

/// Hints for whoever wrote a query that is refused or brings nothing: sentences without a full stop. Characters are
/// counted from 1, as in the reasons of refusals.
std::vector<std::string> QueryHints(std::u16string_view query);

}  // namespace kv::control

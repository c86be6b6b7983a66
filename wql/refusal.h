// Why a query is refused, in words for whoever wrote it.
#pragma once

#include <string>
#include <string_view>

namespace kv::wql {

/// What is wrong with a statement that PrepareStatement refuses, and where: the place in the text and what is expected
/// there, or the class or property that does not exist with the one that was probably meant, or the comparison that
/// does not suit a property. Empty for a statement that is not refused. Runs nothing; any thread may call it.
std::u16string DescribeRefusal(std::u16string_view text);

}  // namespace kv::wql

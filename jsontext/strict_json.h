// JSON by the letter of RFC 8259, for what others have written and others will read.
#pragma once

#include <string>
#include <string_view>

namespace kv {

/// Why a text is not one JSON document in UTF-8, with its place; empty when it is one. json-c and the reader of
/// plans take more than the format has, such as single quotes and NaN.
std::string StrictJsonFault(std::string_view text);

}  // namespace kv

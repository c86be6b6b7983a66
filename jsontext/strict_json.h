// JSON by the letter of RFC 8259, for what others have written and others will read.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace kv {

/// What a document would take to hold: it is known without holding it.
struct JsonShape {
    std::string fault;       // see StrictJsonFault; the rest then counts what stands before it
    std::size_t depth = 0;   // of its arrays and objects within each other
    std::size_t values = 0;  // with arrays and objects, without names
};
JsonShape ShapeOf(std::string_view text);

/// Why a text is not one JSON document in UTF-8, with its place; empty when it is one. json-c and the reader of
/// plans take more than the format has, such as single quotes and NaN.
std::string StrictJsonFault(std::string_view text);

}  // namespace kv

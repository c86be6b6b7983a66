// What all verbs write as JSON alike.
#pragma once

#include <json-c/json.h>
#include <memory>
#include <string>

namespace kv::control {

using JsonPtr = std::unique_ptr<json_object, decltype(&json_object_put)>;

/// A string, which is the caller's. What is not UTF-8 in the text is replaced.
json_object* JsonText(const std::string& text);

/// The text of a value, indented, without a line end.
std::string TextOfJson(json_object* value);

}  // namespace kv::control

#include "tools/kvagentctl/json_text.h"

#include <utf8.h>

namespace kv::control {

json_object* JsonText(const std::string& text) {
    const std::string valid = utf8::replace_invalid(text);
    return json_object_new_string_len(valid.data(), static_cast<int>(valid.size()));
}

std::string TextOfJson(json_object* value) {
    constexpr int flags = JSON_C_TO_STRING_PRETTY | JSON_C_TO_STRING_SPACED | JSON_C_TO_STRING_NOSLASHESCAPE;
    return json_object_to_json_string_ext(value, flags);
}

}  // namespace kv::control

#include "foundation/key_pins.h"

#include <algorithm>

#include "foundation/proxy_password.h"

namespace kv {

namespace {

constexpr std::size_t keyHashBytes = 32;

std::u16string_view WithoutBlanks(std::u16string_view text) {
    constexpr std::u16string_view blanks = u" \t\r\n";
    text.remove_prefix(std::min(text.find_first_not_of(blanks), text.size()));
    return text.substr(0, text.find_last_not_of(blanks) + 1);
}

/// In the form that certificates are compared by.
bool IsKeyPin(std::u16string_view text) {
    constexpr std::u16string_view prefix = u"sha256//";
    if (!text.starts_with(prefix)) return false;
    const std::u16string hash = DecodeBase64(text.substr(prefix.size()));
    return hash.size() == keyHashBytes && EncodeBase64(hash) == text.substr(prefix.size());
}

}  // namespace

KeyPins ReadKeyPins(std::u16string_view list) {
    KeyPins read;
    while (!list.empty()) {
        const std::size_t end = std::min(list.find(u';'), list.size());
        const std::u16string_view part = WithoutBlanks(list.substr(0, end));
        list.remove_prefix(std::min(end + 1, list.size()));
        if (part.empty()) continue;
        if (!IsKeyPin(part)) return {.pins = {}, .wrong = std::u16string(part)};
        read.pins.emplace_back(part);
    }
    return read;
}

}  // namespace kv

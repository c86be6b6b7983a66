// What may name a key or a value of the registry. The limits are those of the Windows registry on every system, so that
// a tree can be carried from one system to the other.
#pragma once

#include <algorithm>
#include <cstddef>
#include <string_view>

namespace platform {

inline constexpr std::size_t maximumKeyNameLength = 255;      // characters, one level
inline constexpr std::size_t maximumKeyDepth = 512;           // levels
inline constexpr std::size_t maximumValueNameLength = 16383;  // characters
inline constexpr std::size_t maximumValueBytes = 1024 * 1024;

/// True when every surrogate has its partner.
constexpr bool IsWellFormedWide(std::u16string_view text) {
    for (std::size_t i = 0; i < text.size(); ++i) {
        const bool high = text[i] >= 0xD800 && text[i] <= 0xDBFF;
        const bool low = text[i] >= 0xDC00 && text[i] <= 0xDFFF;
        if (low || (high && (i + 1 == text.size() || text[i + 1] < 0xDC00 || text[i + 1] > 0xDFFF))) return false;
        if (high) ++i;
    }
    return true;
}

/// A value's name: well-formed, without control characters; empty for the key's default value.
constexpr bool IsRegistryValueName(std::u16string_view name) {
    return name.size() <= maximumValueNameLength && IsWellFormedWide(name) &&
           std::none_of(name.begin(), name.end(), [](char16_t unit) { return unit < u' '; });
}

/// One level of a key's path.
constexpr bool IsRegistryKeyName(std::u16string_view name) {
    return !name.empty() && name.size() <= maximumKeyNameLength && name.find(u'\\') == std::u16string_view::npos &&
           IsRegistryValueName(name);
}

/// Takes the first level off a path; path then holds what is left.
constexpr std::u16string_view TakeKeyName(std::u16string_view& path) {
    const std::size_t length = std::min(path.find(u'\\'), path.size());
    const std::u16string_view name = path.substr(0, length);
    path.remove_prefix(std::min(length + 1, path.size()));
    return name;
}

/// A path of key names with a backslash between them; empty for the root itself.
constexpr bool IsRegistryKeyPath(std::u16string_view path) {
    if (path.ends_with(u'\\')) return false;
    std::size_t depth = 0;
    while (!path.empty()) {
        if (!IsRegistryKeyName(TakeKeyName(path)) || ++depth > maximumKeyDepth) return false;
    }
    return true;
}

}  // namespace platform

// The proxy password's way into the agent: Base64 in the registry, clear text in memory.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace kv {

/// Makes sure that the default key container holds a signature and an exchange key; 1, or 0.
int EnsureCryptoKeys();

/// One 16-bit character per decoded byte. White space around the text is skipped; a text that is no Base64 gives an
/// empty one. Format: RFC 4648, standard alphabet, with padding.
std::u16string DecodeBase64(std::u16string_view text);

/// Base64 of a text of which each character is one byte; none when a character is above 255.
std::optional<std::u16string> EncodeBase64(std::u16string_view text);

}  // namespace kv

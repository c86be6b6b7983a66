// The proxy password's way into the agent: Base64 in the registry, clear text in memory. Beside it, texts encrypted
// with a passphrase by the system's cryptographic service (platform/crypto.h): RC4, its key the MD5 of the passphrase.
// That protects nothing today; it reads and writes what others have encrypted that way.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace kv {

/// Makes sure that the default key container holds a signature key and an exchange key; 1, or 0 when it cannot be
/// opened or a key cannot be made.
int EnsureCryptoKeys();

/// Encrypts a text into one of the same length, which may hold any 16-bit unit, zero included. The key is made of as
/// many characters of the passphrase as the text has; a shorter passphrase goes on with zeros. 1, or 0 with out
/// untouched when the service refuses. Without a key container the result is 1, too, with out untouched.
int EncryptWithPassphrase(std::u16string_view plain, std::u16string& out, std::u16string_view passphrase);

/// The way back, with the same passphrase. The cipher text ends at its first zero character, and so does what comes
/// out. out is untouched when the service refuses, and when the cipher text is longer than 31 characters.
void DecryptWithPassphrase(std::u16string_view cipher, std::u16string& out, std::u16string_view passphrase);

/// One 16-bit character for each decoded byte. White space around the text is skipped; a text that is not Base64 gives
/// an empty one. Format: RFC 4648, standard alphabet, with padding.
[[nodiscard]] std::u16string DecodeBase64(std::u16string_view text);

/// Base64 of a text in which each character is one byte; absent when a character is above 255.
[[nodiscard]] std::optional<std::u16string> EncodeBase64(std::u16string_view text);

}  // namespace kv

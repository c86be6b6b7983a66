// The proxy password's way into the agent: Base64 in the registry, clear text in memory. And texts encrypted with a
// passphrase by the system's cryptographic service (platform/crypto.h): RC4, its key the MD5 of the passphrase. That is
// no protection by today's measure; it reads and writes what others have protected so.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace kv {

/// Makes sure that the default key container holds a signature and an exchange key; 1, or 0.
int EnsureCryptoKeys();

/// Encrypts a text into one of the same length, whose characters are any, zero and halves of a pair among them. The key
/// is made of as many characters of the passphrase as the text has; a shorter passphrase goes on with zeros. 1, and 0
/// when the service refuses, out untouched. Without a key container, too, the result is 1 with out untouched.
int EncryptWithPassphrase(std::u16string_view plain, std::u16string& out, std::u16string_view passphrase);

/// The way back, with the same passphrase. The cipher text ends at its first zero character, and so does the text that
/// comes out. out is untouched when the service refuses and when the cipher text is longer than 31 characters.
void DecryptWithPassphrase(std::u16string_view cipher, std::u16string& out, std::u16string_view passphrase);

/// One 16-bit character per decoded byte. White space around the text is skipped; a text that is not Base64 gives an
/// empty one. Format: RFC 4648, standard alphabet, with padding.
[[nodiscard]] std::u16string DecodeBase64(std::u16string_view text);

/// Base64 of a text of which each character is one byte; none when a character is above 255.
[[nodiscard]] std::optional<std::u16string> EncodeBase64(std::u16string_view text);

}  // namespace kv

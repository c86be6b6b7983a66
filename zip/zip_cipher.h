// The traditional encryption of zip archives (PKWARE's APPNOTE, section 6.1). It keeps nobody out, but archives that
// use it are read and written. A cipher belongs to one thread; nothing here fails.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>

namespace kv {

/// Encrypted bytes in front of an item's data; the last one shows whether the password is wrong.
inline constexpr std::size_t cipherHeaderSize = 12;

struct ZipCipher {
    std::array<std::uint32_t, 3> keys{};
};

/// Sets the keys for the first byte.
void StartCipher(ZipCipher& cipher, std::string_view password);

/// Decrypts or encrypts in place the bytes that follow those of the last call.
void Encrypt(ZipCipher& cipher, std::span<std::uint8_t> bytes);
void Decrypt(ZipCipher& cipher, std::span<std::uint8_t> bytes);

}  // namespace kv

#include "zip/zip_cipher.h"

#include <zlib.h>

namespace kv {

namespace {

std::uint32_t CrcStep(std::uint32_t crc, std::uint32_t byte) {
    static const z_crc_t* const table = get_crc_table();
    return table[(crc ^ byte) & 0xFF] ^ crc >> 8;
}

void UpdateKeys(ZipCipher& cipher, std::uint8_t plain) {
    auto& [a, b, c] = cipher.keys;
    a = CrcStep(a, plain);
    b = (b + (a & 0xFF)) * 134775813 + 1;
    c = CrcStep(c, b >> 24);
}

/// What a byte is combined with.
std::uint8_t NextMask(const ZipCipher& cipher) {
    const std::uint32_t low = (cipher.keys[2] & 0xFFFF) | 2;
    return static_cast<std::uint8_t>(low * (low ^ 1) >> 8);
}

}  // namespace

void StartCipher(ZipCipher& cipher, std::string_view password) {
    cipher.keys = {0x12345678, 0x23456789, 0x34567890};
    for (const char character : password) UpdateKeys(cipher, static_cast<std::uint8_t>(character));
}

void Encrypt(ZipCipher& cipher, std::span<std::uint8_t> bytes) {
    for (std::uint8_t& byte : bytes) {
        const std::uint8_t mask = NextMask(cipher);
        UpdateKeys(cipher, byte);
        byte ^= mask;
    }
}

void Decrypt(ZipCipher& cipher, std::span<std::uint8_t> bytes) {
    for (std::uint8_t& byte : bytes) {
        byte ^= NextMask(cipher);
        UpdateKeys(cipher, byte);
    }
}

}  // namespace kv

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

}  // namespace

void StartCipher(ZipCipher& cipher, std::string_view password) {
    cipher.keys = {0x12345678, 0x23456789, 0x34567890};
    for (const char character : password) UpdateKeys(cipher, static_cast<std::uint8_t>(character));
}

void Decrypt(ZipCipher& cipher, std::span<std::uint8_t> bytes) {
    for (std::uint8_t& byte : bytes) {
        const std::uint32_t mask = (cipher.keys[2] & 0xFFFF) | 2;
        byte = static_cast<std::uint8_t>(byte ^ mask * (mask ^ 1) >> 8);
        UpdateKeys(cipher, byte);
    }
}

}  // namespace kv

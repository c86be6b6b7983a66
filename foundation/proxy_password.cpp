#include "foundation/proxy_password.h"

#include <cstdint>
#include <span>
#include <utility>

#include "foundation/log.h"
#include "platform/crypto.h"

namespace kv {

namespace {

constexpr std::u16string_view alphabet = u"ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
constexpr std::u16string_view whiteSpace = u" \t\n\v\f\r";

constexpr std::size_t longestCipherText = 31;  // characters; others have written no longer ones

/// Makes sure that the container holds a key; false when it cannot be read or made.
bool EnsureKey(platform::CryptoContext context, platform::KeyKind kind) {
    const platform::CryptoOperations& crypto = platform::Crypto();
    platform::CryptoKey key = 0;
    platform::Error result = crypto.CryptGetUserKey(context, kind, key);
    if (result == platform::keyNotPresent) result = crypto.CryptGenKey(context, kind, key);
    if (result != platform::error::success) return false;
    crypto.CryptDestroyKey(key);
    return true;
}

/// What one use of a passphrase holds of the service, released at its end.
struct PassphraseKey {
    platform::CryptoContext context = 0;
    platform::CryptoHash hash = 0;
    platform::CryptoKey key = 0;

    PassphraseKey() = default;
    PassphraseKey(const PassphraseKey&) = delete;
    PassphraseKey& operator=(const PassphraseKey&) = delete;
    ~PassphraseKey() {
        const platform::CryptoOperations& crypto = platform::Crypto();
        if (key != 0) crypto.CryptDestroyKey(key);
        if (hash != 0) crypto.CryptDestroyHash(hash);
        if (context != 0) crypto.CryptReleaseContext(context);
    }
};

/// The default container of the default provider.
bool AcquireContext(PassphraseKey& made) {
    return platform::Crypto().CryptAcquireContextW(u"", platform::KeyContainer::existing, made.context) ==
           platform::error::success;
}

/// Derives the key for a text of that length. False when the service refuses a step.
bool DeriveKey(PassphraseKey& made, std::u16string_view passphrase, std::size_t length) {
    const platform::CryptoOperations& crypto = platform::Crypto();
    std::u16string hashed(passphrase.substr(0, length));
    hashed.resize(length);
    return crypto.CryptCreateHash(made.context, platform::CryptoAlgorithm::md5, made.hash) ==
               platform::error::success &&
           crypto.CryptHashData(made.hash, std::as_bytes(std::span(hashed)).data(), hashed.size() * sizeof(char16_t)) ==
               platform::error::success &&
           crypto.CryptDeriveKey(made.context, platform::CryptoAlgorithm::rc4, made.hash, made.key) ==
               platform::error::success;
}

/// Runs CryptEncrypt or CryptDecrypt over a text in place.
bool Transform(const decltype(platform::CryptoOperations::CryptEncrypt)& operation, const PassphraseKey& made,
               std::u16string& text) {
    const std::span<std::byte> bytes = std::as_writable_bytes(std::span(text));
    return operation(made.key, bytes.data(), bytes.size()) == platform::error::success;
}

/// Up to the first zero character.
std::u16string_view ClosedText(std::u16string_view text) { return text.substr(0, text.find(u'\0')); }

std::u16string_view Trimmed(std::u16string_view text) {
    const std::size_t first = text.find_first_not_of(whiteSpace);
    if (first == std::u16string_view::npos) return {};
    return text.substr(first, text.find_last_not_of(whiteSpace) - first + 1);
}

/// Appends the bytes of one group of four and gives their number: 3, fewer when padding ended the group, 0 when a
/// character is not Base64.
std::size_t DecodeGroup(std::u16string_view group, std::u16string& bytes) {
    std::size_t digits = group.substr(2).find(u'=');
    digits = digits == std::u16string_view::npos ? 4 : digits + 2;
    std::uint32_t bits = 0;
    for (std::size_t i = 0; i < digits; ++i) {
        const std::size_t digit = alphabet.find(group[i]);
        if (digit == std::u16string_view::npos) return 0;
        bits |= static_cast<std::uint32_t>(digit) << (18 - 6 * i);
    }
    for (std::size_t i = 0; i + 1 < digits; ++i) bytes += static_cast<char16_t>(bits >> (16 - 8 * i) & 0xFF);
    return digits - 1;
}

}  // namespace

int EnsureCryptoKeys() {
    Log3("\t Inside EnsureCryptoKeys() \n");
    constexpr std::u16string_view provider = u"Microsoft Base Cryptographic Provider v1.0";
    const platform::CryptoOperations& crypto = platform::Crypto();
    platform::CryptoContext context = 0;
    if (crypto.CryptAcquireContextW(provider, platform::KeyContainer::existing, context) != platform::error::success &&
        crypto.CryptAcquireContextW(provider, platform::KeyContainer::isNew, context) != platform::error::success)
        return 0;
    const bool ensured =
        EnsureKey(context, platform::KeyKind::signature) && EnsureKey(context, platform::KeyKind::keyExchange);
    crypto.CryptReleaseContext(context);
    return ensured ? 1 : 0;
}

int EncryptWithPassphrase(std::u16string_view plain, std::u16string& out, std::u16string_view passphrase) {
    Log3("\t Inside EncryptWithPassphrase() \n");
    PassphraseKey made;
    if (!AcquireContext(made)) return 1;
    std::u16string text(plain);
    if (!DeriveKey(made, passphrase, text.size()) || !Transform(platform::Crypto().CryptEncrypt, made, text)) return 0;
    out = std::move(text);
    return 1;
}

void DecryptWithPassphrase(std::u16string_view cipher, std::u16string& out, std::u16string_view passphrase) {
    Log3("\t Inside DecryptWithPassphrase() \n");
    std::u16string text(ClosedText(cipher));
    if (text.size() > longestCipherText) return;
    PassphraseKey made;
    if (!AcquireContext(made) || !DeriveKey(made, passphrase, text.size())) return;
    if (Transform(platform::Crypto().CryptDecrypt, made, text)) out = ClosedText(text);
}

std::u16string DecodeBase64(std::u16string_view text) {
    Log3("\t Inside DecodeBase64() \n");
    text = Trimmed(text);
    if (text.size() % 4 != 0) return {};
    std::u16string bytes;
    bytes.reserve(text.size() / 4 * 3);
    for (std::size_t i = 0; i < text.size(); i += 4) {
        const std::size_t decoded = DecodeGroup(text.substr(i, 4), bytes);
        if (decoded == 0) return {};
        if (decoded < 3) break;
    }
    return bytes;
}

std::optional<std::u16string> EncodeBase64(std::u16string_view text) {
    Log3("\t Inside EncodeBase64() \n");
    std::u16string encoded;
    encoded.reserve((text.size() + 2) / 3 * 4);
    for (std::size_t i = 0; i < text.size(); i += 3) {
        const std::u16string_view group = text.substr(i, 3);
        std::uint32_t bits = 0;
        for (std::size_t j = 0; j < group.size(); ++j) {
            if (group[j] > 0xFF) return std::nullopt;
            bits |= std::uint32_t{group[j]} << (16 - 8 * j);
        }
        for (std::size_t j = 0; j < 4; ++j) encoded += j <= group.size() ? alphabet[bits >> (18 - 6 * j) & 0x3F] : u'=';
    }
    return encoded;
}

}  // namespace kv

// The key container of the system's cryptographic service, and keys made from a passphrase.
//
// A system without such a service reports success for the container: nothing that the agent keeps is encrypted with its
// keys. It encrypts and decrypts nothing, and says so: CryptCreateHash and all that follow give notSupported there.
//
// Results are system error numbers, 0 for success. The caller owns what an operation makes, and gives it back by the
// Destroy or Release of its kind. Callable from any thread; a handle belongs to one thread at a time.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string_view>

#include "platform/errors.h"
#include "platform/seam.h"

namespace platform {

using CryptoContext = std::uintptr_t;
using CryptoKey = std::uintptr_t;
using CryptoHash = std::uintptr_t;

enum class KeyContainer { existing, isNew };
enum class KeyKind : std::uint32_t { keyExchange = 1, signature = 2 };

/// ALG_ID numbers.
enum class CryptoAlgorithm : std::uint32_t { md5 = 0x8003, rc4 = 0x6801 };

inline constexpr Error keyNotPresent = 0x8009000D;  // NTE_NO_KEY

struct CryptoOperations {
    /// The default key container of an RSA provider, of the user whom the process runs as. An empty name is the
    /// system's default provider. isNew makes the container.
    std::function<Error(std::u16string_view provider, KeyContainer container, CryptoContext& context)>
        CryptAcquireContextW;
    std::function<Error(CryptoContext context, KeyKind kind, CryptoKey& key)> CryptGetUserKey;
    std::function<Error(CryptoContext context, KeyKind kind, CryptoKey& key)> CryptGenKey;
    std::function<void(CryptoKey key)> CryptDestroyKey;
    std::function<void(CryptoContext context)> CryptReleaseContext;

    /// A hash of nothing so far; CryptHashData adds to it.
    std::function<Error(CryptoContext context, CryptoAlgorithm algorithm, CryptoHash& hash)> CryptCreateHash;
    std::function<Error(CryptoHash hash, const std::byte* data, std::size_t size)> CryptHashData;
    std::function<void(CryptoHash hash)> CryptDestroyHash;

    /// An exportable key made from the hash, of the provider's own length for the algorithm. The hash takes no more
    /// data afterwards.
    std::function<Error(CryptoContext context, CryptoAlgorithm algorithm, CryptoHash hash, CryptoKey& key)>
        CryptDeriveKey;

    /// Encrypts or decrypts in place by a stream cipher, which keeps the size. All of the data goes in one call.
    std::function<Error(CryptoKey key, std::byte* data, std::size_t size)> CryptEncrypt;
    std::function<Error(CryptoKey key, std::byte* data, std::size_t size)> CryptDecrypt;
};

inline const CryptoOperations& Crypto() { return CurrentOperations<CryptoOperations>(); }

}  // namespace platform

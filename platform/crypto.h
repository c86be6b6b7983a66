// The key container of the system's cryptographic service. A system without one reports success: nothing that the agent
// keeps is encrypted with these keys.
#pragma once

#include <cstdint>
#include <functional>
#include <string_view>

#include "platform/errors.h"
#include "platform/seam.h"

namespace platform {

using CryptoContext = std::uintptr_t;
using CryptoKey = std::uintptr_t;

enum class KeyKind : std::uint32_t { keyExchange = 1, signature = 2 };

inline constexpr Error keyNotPresent = 0x8009000D;  // NTE_NO_KEY

struct CryptoOperations {
    /// The default key container of an RSA provider; newKeySet makes the container.
    std::function<Error(std::u16string_view provider, bool newKeySet, CryptoContext& context)> CryptAcquireContextW;
    std::function<Error(CryptoContext context, KeyKind kind, CryptoKey& key)> CryptGetUserKey;
    std::function<Error(CryptoContext context, KeyKind kind, CryptoKey& key)> CryptGenKey;
    std::function<void(CryptoKey key)> CryptDestroyKey;
    std::function<void(CryptoContext context)> CryptReleaseContext;
};

inline const CryptoOperations& Crypto() { return CurrentOperations<CryptoOperations>(); }

}  // namespace platform

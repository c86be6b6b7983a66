#include "platform/linux/linux.h"

namespace platform {

namespace {

/// There is no key container here, and nothing needs one: any handle will do.
constexpr CryptoContext theContext = 1;
constexpr CryptoKey theKey = 1;

Error CryptAcquireContextW(std::u16string_view, KeyContainer, CryptoContext& context) {
    context = theContext;
    return error::success;
}

Error GiveKey(CryptoContext, KeyKind, CryptoKey& key) {
    key = theKey;
    return error::success;
}

constexpr auto refuse = [](auto&&...) { return error::notSupported; };

}  // namespace

CryptoOperations LinuxCrypto() {
    return {
        .CryptAcquireContextW = CryptAcquireContextW,
        .CryptGetUserKey = GiveKey,
        .CryptGenKey = GiveKey,
        .CryptDestroyKey = [](CryptoKey) {},
        .CryptReleaseContext = [](CryptoContext) {},
        .CryptCreateHash = refuse,
        .CryptHashData = refuse,
        .CryptDestroyHash = [](CryptoHash) {},
        .CryptDeriveKey = refuse,
        .CryptEncrypt = refuse,
        .CryptDecrypt = refuse,
    };
}

}  // namespace platform

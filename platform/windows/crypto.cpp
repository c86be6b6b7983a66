// CryptoAPI. Contexts, keys and hashes are the system's own handles.
#include "platform/guarded.h"
#include "platform/windows/win32.h"

// After the system's main header, which it needs.
#include <wincrypt.h>

namespace platform {

namespace {

/// The kinds and algorithms of the seam have the system's numbers.
static_assert(static_cast<DWORD>(KeyKind::keyExchange) == AT_KEYEXCHANGE);
static_assert(static_cast<DWORD>(KeyKind::signature) == AT_SIGNATURE);
static_assert(static_cast<ALG_ID>(CryptoAlgorithm::md5) == CALG_MD5);
static_assert(static_cast<ALG_ID>(CryptoAlgorithm::rc4) == CALG_RC4);

Error CryptAcquireContextW(std::u16string_view provider, KeyContainer container, CryptoContext& context) {
    context = 0;
    const std::wstring name = WideOf(provider);
    HCRYPTPROV acquired = 0;
    const Error result =
        ResultOf(::CryptAcquireContextW(&acquired, nullptr, name.empty() ? nullptr : name.c_str(), PROV_RSA_FULL,
                                        container == KeyContainer::isNew ? CRYPT_NEWKEYSET : 0));
    if (result == error::success) context = acquired;
    return result;
}

Error CryptGetUserKey(CryptoContext context, KeyKind kind, CryptoKey& key) {
    key = 0;
    HCRYPTKEY found = 0;
    const Error result = ResultOf(::CryptGetUserKey(context, static_cast<DWORD>(kind), &found));
    if (result == error::success) key = found;
    return result;
}

/// A pair of the provider's default length.
Error CryptGenKey(CryptoContext context, KeyKind kind, CryptoKey& key) {
    key = 0;
    HCRYPTKEY made = 0;
    const Error result = ResultOf(::CryptGenKey(context, static_cast<ALG_ID>(kind), 0, &made));
    if (result == error::success) key = made;
    return result;
}

Error CryptCreateHash(CryptoContext context, CryptoAlgorithm algorithm, CryptoHash& hash) {
    hash = 0;
    HCRYPTHASH made = 0;
    const Error result = ResultOf(::CryptCreateHash(context, static_cast<ALG_ID>(algorithm), 0, 0, &made));
    if (result == error::success) hash = made;
    return result;
}

Error CryptHashData(CryptoHash hash, const std::byte* data, std::size_t size) {
    if (size > MAXDWORD) return error::invalidParameter;
    return ResultOf(::CryptHashData(hash, reinterpret_cast<const BYTE*>(data), static_cast<DWORD>(size), 0));
}

Error CryptDeriveKey(CryptoContext context, CryptoAlgorithm algorithm, CryptoHash hash, CryptoKey& key) {
    key = 0;
    HCRYPTKEY derived = 0;
    const Error result =
        ResultOf(::CryptDeriveKey(context, static_cast<ALG_ID>(algorithm), hash, CRYPT_EXPORTABLE, &derived));
    if (result == error::success) key = derived;
    return result;
}

Error CryptEncrypt(CryptoKey key, std::byte* data, std::size_t size) {
    if (size > MAXDWORD) return error::invalidParameter;
    DWORD bytes = static_cast<DWORD>(size);
    return ResultOf(::CryptEncrypt(key, 0, TRUE, 0, reinterpret_cast<BYTE*>(data), &bytes, bytes));
}

Error CryptDecrypt(CryptoKey key, std::byte* data, std::size_t size) {
    if (size > MAXDWORD) return error::invalidParameter;
    DWORD bytes = static_cast<DWORD>(size);
    return ResultOf(::CryptDecrypt(key, 0, TRUE, 0, reinterpret_cast<BYTE*>(data), &bytes));
}

}  // namespace

CryptoOperations WindowsCrypto() {
    return {
        .CryptAcquireContextW = Guarded(CryptAcquireContextW),
        .CryptGetUserKey = CryptGetUserKey,
        .CryptGenKey = CryptGenKey,
        .CryptDestroyKey = [](CryptoKey key) { ::CryptDestroyKey(key); },
        .CryptReleaseContext = [](CryptoContext context) { ::CryptReleaseContext(context, 0); },
        .CryptCreateHash = CryptCreateHash,
        .CryptHashData = CryptHashData,
        .CryptDestroyHash = [](CryptoHash hash) { ::CryptDestroyHash(hash); },
        .CryptDeriveKey = CryptDeriveKey,
        .CryptEncrypt = CryptEncrypt,
        .CryptDecrypt = CryptDecrypt,
    };
}

}  // namespace platform

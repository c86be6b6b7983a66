#include "platform/windows/http_certificates.h"

#include <algorithm>
#include <array>
#include <iterator>
#include <new>
#include <optional>
#include <utility>
#include <vector>

#include "platform/http_trust.h"
#include "platform/owned_handle.h"
#include "platform/utf.h"

// After the system's main header, which they need.
#include <winhttp.h>
#include <ws2tcpip.h>

namespace platform {

namespace {

BOOL CloseStore(HCERTSTORE store) { return ::CertCloseStore(store, 0); }
BOOL FreeCertificate(PCCERT_CONTEXT certificate) { return ::CertFreeCertificateContext(certificate); }
int FreeEngine(HCERTCHAINENGINE engine) {
    ::CertFreeCertificateChainEngine(engine);
    return 0;
}
int FreeChain(PCCERT_CHAIN_CONTEXT chain) {
    ::CertFreeCertificateChain(chain);
    return 0;
}

using OwnedStore = OwnedHandle<HCERTSTORE, CloseStore>;
using OwnedCertificate = OwnedHandle<PCCERT_CONTEXT, FreeCertificate>;
using OwnedEngine = OwnedHandle<HCERTCHAINENGINE, FreeEngine>;
using OwnedChain = OwnedHandle<PCCERT_CHAIN_CONTEXT, FreeChain>;
using Bytes = std::vector<BYTE>;

Bytes Sha256(const BYTE* bytes, DWORD size) {
    Bytes hash(32);
    auto length = static_cast<DWORD>(hash.size());
    return ::CryptHashCertificate(0, CALG_SHA_256, 0, bytes, size, hash.data(), &length) ? hash : Bytes();
}

std::string KeyPin(PCCERT_CONTEXT certificate) {
    DWORD size = 0;
    CERT_PUBLIC_KEY_INFO& key = certificate->pCertInfo->SubjectPublicKeyInfo;
    ::CryptEncodeObject(X509_ASN_ENCODING, X509_PUBLIC_KEY_INFO, &key, nullptr, &size);
    Bytes der(size);
    if (!::CryptEncodeObject(X509_ASN_ENCODING, X509_PUBLIC_KEY_INFO, &key, der.data(), &size)) return "";
    const Bytes hash = Sha256(der.data(), size);
    std::array<char, 64> text{};
    auto length = static_cast<DWORD>(text.size());
    constexpr DWORD form = CRYPT_STRING_BASE64 | CRYPT_STRING_NOCRLF;
    if (hash.empty() ||
        !::CryptBinaryToStringA(hash.data(), static_cast<DWORD>(hash.size()), form, text.data(), &length))
        return "";
    return std::string("sha256//") + text.data();
}

std::string NameText(CERT_NAME_BLOB& name) {
    const DWORD size = ::CertNameToStrW(X509_ASN_ENCODING, &name, CERT_X500_NAME_STR, nullptr, 0);
    std::wstring text(size, L'\0');
    ::CertNameToStrW(X509_ASN_ENCODING, &name, CERT_X500_NAME_STR, text.data(), size);
    return Utf8FromWide(Utf16FromWide(text.c_str()));
}

std::int64_t Seconds(const FILETIME& time) {
    constexpr std::int64_t ticks = 10'000'000;           // of a second
    constexpr std::int64_t secondsTo1970 = 11644473600;  // from 1601
    return ((std::int64_t{time.dwHighDateTime} << 32) | time.dwLowDateTime) / ticks - secondsTo1970;
}

OwnedCertificate FromDer(std::string_view der) {
    return OwnedCertificate(::CertCreateCertificateContext(X509_ASN_ENCODING, reinterpret_cast<const BYTE*>(der.data()),
                                                           static_cast<DWORD>(der.size())));
}

/// Puts the certificates of a PEM text into a store; how many there are, or null when one of them cannot be read.
std::optional<std::size_t> AddPem(HCERTSTORE store, std::string_view pem) {
    std::vector<std::string> texts;
    if (!SplitPem(pem, texts)) return std::nullopt;
    for (const std::string& text : texts) {
        Bytes der(text.size());
        auto size = static_cast<DWORD>(der.size());
        if (!::CryptStringToBinaryA(text.data(), static_cast<DWORD>(text.size()), CRYPT_STRING_BASE64HEADER, der.data(),
                                    &size, nullptr, nullptr) ||
            !::CertAddEncodedCertificateToStore(store, X509_ASN_ENCODING, der.data(), size, CERT_STORE_ADD_ALWAYS,
                                                nullptr)) {
            return std::nullopt;
        }
    }
    return texts.size();
}

OwnedStore EmptyStore() {
    OwnedStore store(::CertOpenStore(CERT_STORE_PROV_MEMORY, 0, 0, CERT_STORE_CREATE_NEW_FLAG, nullptr));
    if (!store) throw std::bad_alloc();
    return store;
}

/// The bytes of an IP address as certificates have them; empty for a name.
Bytes AddressBytes(std::wstring host) {
    if (host.starts_with(L'[')) host = host.substr(1, host.size() - 2);
    Bytes bytes(sizeof(IN6_ADDR));
    if (::InetPtonW(AF_INET6, host.c_str(), bytes.data()) == 1) return bytes;
    bytes.resize(sizeof(IN_ADDR));
    return ::InetPtonW(AF_INET, host.c_str(), bytes.data()) == 1 ? bytes : Bytes();
}

/// Calls with each alternative name of a certificate.
template <class Visit>
void ForEachName(PCCERT_CONTEXT certificate, const Visit& visit) {
    const CERT_INFO& info = *certificate->pCertInfo;
    const CERT_EXTENSION* names = ::CertFindExtension(szOID_SUBJECT_ALT_NAME2, info.cExtension, info.rgExtension);
    CERT_ALT_NAME_INFO* decoded = nullptr;
    DWORD size = 0;
    if (names == nullptr ||
        !::CryptDecodeObjectEx(X509_ASN_ENCODING, X509_ALTERNATE_NAME, names->Value.pbData, names->Value.cbData,
                               CRYPT_DECODE_ALLOC_FLAG, nullptr, &decoded, &size)) {
        return;
    }
    std::for_each(decoded->rgAltEntry, decoded->rgAltEntry + decoded->cAltEntry, visit);
    ::LocalFree(decoded);
}

/// Whether a certificate is for an IP address. The system's own check does not look for addresses everywhere.
bool IsForAddress(PCCERT_CONTEXT certificate, const Bytes& address) {
    bool found = false;
    ForEachName(certificate, [&](const CERT_ALT_NAME_ENTRY& e) {
        found = found || (e.dwAltNameChoice == CERT_ALT_NAME_IP_ADDRESS &&
                          std::equal(address.begin(), address.end(), e.IPAddress.pbData,
                                     e.IPAddress.pbData + e.IPAddress.cbData));
    });
    return found;
}

std::string AddressText(const CRYPT_DATA_BLOB& address) {
    std::array<wchar_t, INET6_ADDRSTRLEN> text{};
    const int family = address.cbData == sizeof(IN_ADDR) ? AF_INET : AF_INET6;
    if (family == AF_INET6 && address.cbData != sizeof(IN6_ADDR)) return "";
    ::InetNtopW(family, address.pbData, text.data(), text.size());
    return Utf8FromWide(Utf16FromWide(text.data()));
}

/// As HttpCertificate::names.
std::vector<std::string> NamesOf(PCCERT_CONTEXT certificate) {
    std::vector<std::string> names;
    bool hasHost = false;
    ForEachName(certificate, [&](const CERT_ALT_NAME_ENTRY& e) {
        hasHost = hasHost || e.dwAltNameChoice == CERT_ALT_NAME_DNS_NAME;
        if (e.dwAltNameChoice == CERT_ALT_NAME_DNS_NAME) names.push_back(Utf8FromWide(Utf16FromWide(e.pwszDNSName)));
        if (e.dwAltNameChoice == CERT_ALT_NAME_IP_ADDRESS) names.push_back(AddressText(e.IPAddress));
    });
    if (hasHost) return names;
    char commonName[] = szOID_COMMON_NAME;
    std::array<wchar_t, 256> text{};
    const DWORD size = ::CertGetNameStringW(certificate, CERT_NAME_ATTR_TYPE, 0, commonName, text.data(),
                                            static_cast<DWORD>(text.size()));
    if (size > 1) names.push_back(Utf8FromWide(Utf16FromWide(text.data())));
    return names;
}

std::string HexText(DWORD number) {
    constexpr char digits[] = "0123456789ABCDEF";
    std::string text;
    for (int shift = 28; shift >= 0; shift -= 4) text += digits[(number >> shift) & 15];
    return text;
}

/// What a verdict of the system means.
std::string VerdictText(DWORD verdict) {
    struct Row {
        HRESULT verdict;
        const char* text;
    };
    static constexpr Row rows[] = {
        {CERT_E_EXPIRED, "certificate has expired or is not yet valid"},
        {CERT_E_VALIDITYPERIODNESTING, "certificate has expired or is not yet valid"},
        {CERT_E_UNTRUSTEDROOT, "it does not come from a trusted authority"},
        {CERT_E_CHAINING, "it does not come from a trusted authority"},
        {CERT_E_WRONG_USAGE, "it is not for a server"},
        {TRUST_E_CERT_SIGNATURE, "its signature is wrong"},
        {TRUST_E_BASIC_CONSTRAINTS, "one of its issuers is not an authority"},
    };
    const auto* row = std::find_if(std::begin(rows), std::end(rows),
                                   [&](const Row& r) { return static_cast<DWORD>(r.verdict) == verdict; });
    if (row != std::end(rows)) return row->text;
    return "it cannot be verified (error " + HexText(verdict) + ")";
}

/// The chain from a certificate to an authority; null when none can be made. The engine is null for the system's.
OwnedChain ChainOf(HCERTCHAINENGINE engine, PCCERT_CONTEXT certificate) {
    char serverUse[] = szOID_PKIX_KP_SERVER_AUTH;
    LPSTR uses[] = {serverUse};
    CERT_CHAIN_PARA parameters{};
    parameters.cbSize = sizeof parameters;
    parameters.RequestedUsage.dwType = USAGE_MATCH_TYPE_OR;
    parameters.RequestedUsage.Usage = {1, uses};
    OwnedChain chain;
    ::CertGetCertificateChain(engine, certificate, nullptr, certificate->hCertStore, &parameters, 0, nullptr,
                              &chain.Place());
    return chain;
}

/// What is wrong with a chain; empty when nothing is. The policy below looks at it, too, but Wine's not at everything.
std::string ChainProblem(DWORD status) {
    if ((status & (CERT_TRUST_IS_PARTIAL_CHAIN | CERT_TRUST_IS_UNTRUSTED_ROOT)) != 0)
        return VerdictText(static_cast<DWORD>(CERT_E_UNTRUSTEDROOT));
    if ((status & CERT_TRUST_IS_NOT_TIME_VALID) != 0) return VerdictText(static_cast<DWORD>(CERT_E_EXPIRED));
    if ((status & CERT_TRUST_IS_NOT_VALID_FOR_USAGE) != 0) return VerdictText(static_cast<DWORD>(CERT_E_WRONG_USAGE));
    if ((status & CERT_TRUST_IS_NOT_SIGNATURE_VALID) != 0)
        return VerdictText(static_cast<DWORD>(TRUST_E_CERT_SIGNATURE));
    return status == CERT_TRUST_NO_ERROR ? "" : "its chain has an error (status " + HexText(status) + ")";
}

/// Why a certificate does not come from someone trusted, or is not for a host; empty when all is well.
std::string IssueProblem(PCCERT_CONTEXT certificate, const std::wstring& host, HCERTCHAINENGINE engine) {
    const OwnedChain chain = ChainOf(engine, certificate);
    if (!chain) return VerdictText(LastError());
    if (const std::string problem = ChainProblem(chain.get()->TrustStatus.dwErrorStatus); !problem.empty())
        return problem;
    const Bytes address = AddressBytes(host);
    std::wstring name = host;
    SSL_EXTRA_CERT_CHAIN_POLICY_PARA server{};
    server.cbSize = sizeof server;
    server.dwAuthType = AUTHTYPE_SERVER;
    server.fdwChecks = address.empty() ? 0 : SECURITY_FLAG_IGNORE_CERT_CN_INVALID;
    server.pwszServerName = name.data();
    CERT_CHAIN_POLICY_PARA policy{};
    policy.cbSize = sizeof policy;
    policy.pvExtraPolicyPara = &server;
    CERT_CHAIN_POLICY_STATUS status{};
    status.cbSize = sizeof status;
    if (!::CertVerifyCertificateChainPolicy(CERT_CHAIN_POLICY_SSL, chain.get(), &policy, &status))
        return VerdictText(LastError());
    const bool isForOther = status.dwError == static_cast<DWORD>(CERT_E_CN_NO_MATCH) ||
                            (status.dwError == 0 && !address.empty() && !IsForAddress(certificate, address));
    if (isForOther) return NameProblem(NamesOf(certificate), Utf8FromWide(Utf16FromWide(host.c_str())));
    return status.dwError == 0 ? "" : VerdictText(status.dwError);
}

/// The same with the authorities of a PEM text alone.
std::string IssueProblem(PCCERT_CONTEXT certificate, const std::wstring& host, std::string_view authorities) {
    const OwnedStore store = EmptyStore();
    if (!AddPem(store.get(), authorities)) return "the authorities cannot be read";
    CERT_CHAIN_ENGINE_CONFIG config{};
    config.cbSize = sizeof config;
    config.hExclusiveRoot = store.get();
    OwnedEngine engine;
    if (!::CertCreateCertificateChainEngine(&config, &engine.Place())) return VerdictText(LastError());
    return IssueProblem(certificate, host, engine.get());
}

}  // namespace

Error ReadCertificate(std::string_view der, HttpCertificate& certificate) {
    const OwnedCertificate read = FromDer(der);
    if (!read) return error::invalidData;
    CERT_INFO& info = *read.get()->pCertInfo;
    certificate = {.subject = NameText(info.Subject),
                   .issuer = NameText(info.Issuer),
                   .validFrom = Seconds(info.NotBefore),
                   .validUntil = Seconds(info.NotAfter),
                   .fingerprint = FingerprintText(
                       Sha256(reinterpret_cast<const BYTE*>(der.data()), static_cast<DWORD>(der.size()))),
                   .keyPin = KeyPin(read.get()),
                   .names = NamesOf(read.get())};
    return error::success;
}

Error CountCertificates(std::string_view pem, std::size_t& count) {
    const auto found = AddPem(EmptyStore().get(), pem);
    count = found.value_or(0);
    return found ? error::success : error::invalidData;
}

HttpPresentedCertificate JudgeCertificate(PCCERT_CONTEXT certificate, const HttpServerTrust& trust,
                                          const std::wstring& host, std::uint16_t port) {
    HttpPresentedCertificate presented;
    presented.server = ServerText(Utf8FromWide(Utf16FromWide(host)), port);
    presented.der.assign(reinterpret_cast<const char*>(certificate->pbCertEncoded), certificate->cbCertEncoded);
    if (!trust.pinnedKeys.empty()) presented.keyProblem = KeyProblem(trust.pinnedKeys, KeyPin(certificate));
    if (trust.authorities) presented.authoritiesProblem = IssueProblem(certificate, host, *trust.authorities);
    if (trust.systemAuthorities)
        presented.systemProblem = IssueProblem(certificate, host, static_cast<HCERTCHAINENGINE>(nullptr));
    return presented;
}

}  // namespace platform

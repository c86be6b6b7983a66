#include "platform/linux/http_certificates.h"

#include <arpa/inet.h>
#include <array>
#include <ctime>
#include <memory>
#include <new>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509.h>
#include <openssl/x509_vfy.h>
#include <openssl/x509v3.h>
#include <utility>
#include <vector>

#include "platform/http_trust.h"
#include "platform/owned_handle.h"

namespace platform {

namespace {

void FreeStack(STACK_OF(X509) * stack) { sk_X509_pop_free(stack, X509_free); }

using OwnedCertificate = std::unique_ptr<X509, ReleasedBy<X509_free>>;
using OwnedStack = std::unique_ptr<STACK_OF(X509), ReleasedBy<FreeStack>>;
using OwnedBio = std::unique_ptr<BIO, ReleasedBy<BIO_free_all>>;

/// A result that is null only when memory has run out.
template <class T>
T* Made(T* made) {
    if (made == nullptr) throw std::bad_alloc();
    return made;
}

std::array<unsigned char, 32> Sha256(std::string_view bytes) {
    std::array<unsigned char, 32> hash{};
    EVP_Digest(bytes.data(), bytes.size(), hash.data(), nullptr, EVP_sha256(), nullptr);
    return hash;
}

/// What an encoder of OpenSSL writes: DER.
template <class T>
std::string Encoded(T* object, int (*encode)(T*, unsigned char**)) {
    unsigned char* bytes = nullptr;
    const int size = encode(object, &bytes);
    if (size < 0) throw std::bad_alloc();
    std::string der(reinterpret_cast<char*>(bytes), static_cast<std::size_t>(size));
    OPENSSL_free(bytes);
    return der;
}

std::string KeyPin(const X509* certificate) {
    const auto hash = Sha256(Encoded<const X509_PUBKEY>(X509_get_X509_PUBKEY(certificate), i2d_X509_PUBKEY));
    std::array<unsigned char, 45> text{};
    EVP_EncodeBlock(text.data(), hash.data(), hash.size());
    return std::string("sha256//") + reinterpret_cast<const char*>(text.data());
}

std::string NameText(const X509_NAME* name) {
    constexpr unsigned long flags =
        (ASN1_STRFLGS_RFC2253 & ~ASN1_STRFLGS_ESC_MSB) | XN_FLAG_SEP_CPLUS_SPC | XN_FLAG_FN_SN;
    const OwnedBio text(Made(BIO_new(BIO_s_mem())));
    X509_NAME_print_ex(text.get(), name, 0, flags);
    char* bytes = nullptr;
    const long size = BIO_get_mem_data(text.get(), &bytes);
    return {bytes, static_cast<std::size_t>(size)};
}

std::int64_t Seconds(const ASN1_TIME* time) {
    std::tm parts{};
    return ASN1_TIME_to_tm(time, &parts) == 1 ? timegm(&parts) : 0;
}

/// The bytes of a text in a certificate, in UTF-8.
std::string TextOf(const ASN1_STRING* text) {
    unsigned char* bytes = nullptr;
    const int size = ASN1_STRING_to_UTF8(&bytes, text);
    if (size < 0) return "";
    std::string utf8(reinterpret_cast<char*>(bytes), static_cast<std::size_t>(size));
    OPENSSL_free(bytes);
    return utf8;
}

std::string AddressText(const ASN1_OCTET_STRING* address) {
    std::array<char, INET6_ADDRSTRLEN> text{};
    const int family = ASN1_STRING_length(address) == 4 ? AF_INET : AF_INET6;
    if (family == AF_INET6 && ASN1_STRING_length(address) != 16) return "";
    inet_ntop(family, ASN1_STRING_get0_data(address), text.data(), text.size());
    return text.data();
}

/// As HttpCertificate::names.
std::vector<std::string> NamesOf(const X509* certificate) {
    std::vector<std::string> names;
    bool hasHost = false;
    const std::unique_ptr<GENERAL_NAMES, ReleasedBy<GENERAL_NAMES_free>> found(
        static_cast<GENERAL_NAMES*>(X509_get_ext_d2i(certificate, NID_subject_alt_name, nullptr, nullptr)));
    for (int i = 0; found && i < sk_GENERAL_NAME_num(found.get()); ++i) {
        int type = 0;
        const void* const name = GENERAL_NAME_get0_value(sk_GENERAL_NAME_value(found.get(), i), &type);
        hasHost = hasHost || type == GEN_DNS;
        if (type == GEN_DNS) names.push_back(TextOf(static_cast<const ASN1_STRING*>(name)));
        if (type == GEN_IPADD) names.push_back(AddressText(static_cast<const ASN1_STRING*>(name)));
    }
    const X509_NAME* subject = X509_get_subject_name(certificate);
    const int at = hasHost ? -1 : X509_NAME_get_index_by_NID(subject, NID_commonName, -1);
    if (at >= 0) names.push_back(TextOf(X509_NAME_ENTRY_get_data(X509_NAME_get_entry(subject, at))));
    return names;
}

OwnedCertificate FromDer(std::string_view der) {
    const auto* bytes = reinterpret_cast<const unsigned char*>(der.data());
    return OwnedCertificate(d2i_X509(nullptr, &bytes, static_cast<long>(der.size())));
}

/// The certificates of a PEM text; null when one of them cannot be read.
OwnedStack FromPem(std::string_view pem) {
    std::vector<std::string> texts;
    if (!SplitPem(pem, texts)) return nullptr;
    OwnedStack stack(Made(sk_X509_new_null()));
    for (const std::string& text : texts) {
        const OwnedBio source(Made(BIO_new_mem_buf(text.data(), static_cast<int>(text.size()))));
        OwnedCertificate certificate(PEM_read_bio_X509(source.get(), nullptr, nullptr, nullptr));
        if (!certificate) return nullptr;
        if (sk_X509_push(stack.get(), certificate.get()) == 0) throw std::bad_alloc();
        static_cast<void>(certificate.release());
    }
    return stack;
}

/// What a certificate of a server has to be besides being issued by someone trusted. An authority that is trusted need
/// not have issued itself.
void AskForServer(X509_VERIFY_PARAM* parameters, std::string host, int level) {
    if (host.ends_with('.')) host.pop_back();  // it makes a name complete, and stands in no certificate
    X509_VERIFY_PARAM_set_flags(parameters, X509_V_FLAG_PARTIAL_CHAIN);
    X509_VERIFY_PARAM_set_auth_level(parameters, level);
    X509_VERIFY_PARAM_set_hostflags(parameters, X509_CHECK_FLAG_NO_PARTIAL_WILDCARDS);
    if (X509_VERIFY_PARAM_set1_ip_asc(parameters, host.c_str()) == 1) return;
    if (X509_VERIFY_PARAM_set1_host(parameters, host.data(), host.size()) != 1) throw std::bad_alloc();
}

/// Why the certificate of a handshake does not come from someone trusted; empty when it does. Trusted are the
/// authorities given, or when that is null those that the handshake knows.
std::string IssueProblem(X509_STORE_CTX* handshake, const std::string& host, STACK_OF(X509) * authorities) {
    const std::unique_ptr<X509_STORE_CTX, ReleasedBy<X509_STORE_CTX_free>> check(Made(X509_STORE_CTX_new()));
    X509_STORE* store = authorities == nullptr ? X509_STORE_CTX_get0_store(handshake) : nullptr;
    if (X509_STORE_CTX_init(check.get(), store, X509_STORE_CTX_get0_cert(handshake),
                            X509_STORE_CTX_get0_untrusted(handshake)) != 1 ||
        X509_STORE_CTX_set_default(check.get(), "ssl_server") != 1) {
        throw std::bad_alloc();
    }
    if (authorities != nullptr) X509_STORE_CTX_set0_trusted_stack(check.get(), authorities);
    AskForServer(X509_STORE_CTX_get0_param(check.get()), host,
                 X509_VERIFY_PARAM_get_auth_level(X509_STORE_CTX_get0_param(handshake)));
    if (X509_verify_cert(check.get()) == 1) return "";
    ERR_clear_error();  // libcurl's calls find none but their own
    const int problem = X509_STORE_CTX_get_error(check.get());
    if (problem == X509_V_ERR_HOSTNAME_MISMATCH || problem == X509_V_ERR_IP_ADDRESS_MISMATCH)
        return NameProblem(NamesOf(X509_STORE_CTX_get0_cert(handshake)), host);
    return problem == X509_V_OK ? "it cannot be verified" : X509_verify_cert_error_string(problem);
}

}  // namespace

Error ReadCertificate(std::string_view der, HttpCertificate& certificate) {
    const OwnedCertificate read = FromDer(der);
    if (!read) {
        ERR_clear_error();
        return error::invalidData;
    }
    certificate = {.subject = NameText(X509_get_subject_name(read.get())),
                   .issuer = NameText(X509_get_issuer_name(read.get())),
                   .validFrom = Seconds(X509_get0_notBefore(read.get())),
                   .validUntil = Seconds(X509_get0_notAfter(read.get())),
                   .fingerprint = FingerprintText(Sha256(der)),
                   .keyPin = KeyPin(read.get()),
                   .names = NamesOf(read.get())};
    return error::success;
}

Error CountCertificates(std::string_view pem, std::size_t& count) {
    const OwnedStack stack = FromPem(pem);
    ERR_clear_error();
    count = stack ? static_cast<std::size_t>(sk_X509_num(stack.get())) : 0;
    return stack ? error::success : error::invalidData;
}

CertificateJudge::CertificateJudge(const HttpServerTrust& trust, bool verifies, std::string host, std::string server)
    : trust_(trust), verifies_(verifies), host_(std::move(host)), server_(std::move(server)) {}

void CertificateJudge::Watch(SSL_CTX* context) {
    SSL_CTX_set_cert_verify_callback(context, OnCertificate, this);
    // Else a handshake goes on whatever is said.
    if (AsksForCertificate(trust_)) SSL_CTX_set_verify(context, SSL_VERIFY_PEER, nullptr);
}

/// Called by OpenSSL, which is C, when the server has shown its certificate; 0 ends the handshake.
int CertificateJudge::OnCertificate(X509_STORE_CTX* handshake, void* self) {
    bool passes = false;
    try {
        passes = static_cast<CertificateJudge*>(self)->Judge(handshake);
    } catch (const std::exception&) {
        passes = false;
    }
    return passes ? 1 : 0;
}

bool CertificateJudge::Judge(X509_STORE_CTX* handshake) {
    X509* certificate = X509_STORE_CTX_get0_cert(handshake);
    presented_.emplace();
    presented_->server = server_;
    presented_->der = Encoded<const X509>(certificate, i2d_X509);
    if (!AsksForCertificate(trust_)) return hasPassed_ = !verifies_ || X509_verify_cert(handshake) == 1;
    if (!trust_.pinnedKeys.empty()) presented_->keyProblem = KeyProblem(trust_.pinnedKeys, KeyPin(certificate));
    if (trust_.authorities) {
        const OwnedStack authorities = FromPem(*trust_.authorities);
        presented_->authoritiesProblem =
            authorities ? IssueProblem(handshake, host_, authorities.get()) : "the authorities cannot be read";
    }
    if (trust_.systemAuthorities) presented_->systemProblem = IssueProblem(handshake, host_, nullptr);
    hasPassed_ = PassesChecks(*presented_);
    const bool goesOn = hasPassed_ || trust_.onlyLook;
    X509_STORE_CTX_set_error(handshake, goesOn ? X509_V_OK : X509_V_ERR_APPLICATION_VERIFICATION);
    return goesOn;
}

}  // namespace platform

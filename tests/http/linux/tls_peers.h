// Certificates as they come in the field, made with OpenSSL, and a TLS server that counts what it decrypts.
#pragma once

#include <atomic>
#include <chrono>
#include <memory>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/ssl.h>
#include <openssl/x509v3.h>
#include <string>
#include <thread>

#include "platform/owned_handle.h"
#include "tests/support/loopback.h"

namespace kv::test {

using Key = std::shared_ptr<EVP_PKEY>;
inline Key NewKey() { return {EVP_EC_gen("P-256"), EVP_PKEY_free}; }

/// A certificate with its key.
struct Identity {
    Key key;
    std::shared_ptr<X509> certificate;
    std::shared_ptr<X509> between = nullptr;  // the issuer's, if a server has to show it, too
};

/// What is particular about a certificate.
struct Particulars {
    std::string name = "cs";               // its subject's
    std::string address = "IP:127.0.0.1";  // that it is for; empty: an authority's
    int from = -1, until = 1;              // days
};

/// A certificate for a key, signed by an issuer, or by itself when there is no issuer.
inline Identity Issue(const Key& key, const Particulars& what, const Identity* issuer = nullptr) {
    static long serial = 0;
    const std::shared_ptr<X509> made(X509_new(), X509_free);
    X509* certificate = made.get();
    X509_set_version(certificate, 2);
    ASN1_INTEGER_set(X509_get_serialNumber(certificate), ++serial);
    X509_time_adj_ex(X509_getm_notBefore(certificate), what.from, 0, nullptr);
    X509_time_adj_ex(X509_getm_notAfter(certificate), what.until, 0, nullptr);
    const auto* name = reinterpret_cast<const unsigned char*>(what.name.c_str());
    X509_NAME_add_entry_by_txt(X509_get_subject_name(certificate), "CN", MBSTRING_UTF8, name, -1, -1, 0);
    X509_set_issuer_name(certificate, X509_get_subject_name(issuer ? issuer->certificate.get() : certificate));
    X509_set_pubkey(certificate, key.get());
    X509V3_CTX context;
    X509V3_set_ctx(&context, issuer ? issuer->certificate.get() : certificate, certificate, nullptr, nullptr, 0);
    const auto extend = [&](int kind, const std::string& value) {
        X509_EXTENSION* extension = X509V3_EXT_conf_nid(nullptr, &context, kind, value.c_str());
        X509_add_ext(certificate, extension, -1);
        X509_EXTENSION_free(extension);
    };
    const bool authority = what.address.empty();
    extend(authority ? NID_basic_constraints : NID_subject_alt_name, authority ? "critical,CA:TRUE" : what.address);
    extend(NID_subject_key_identifier, "hash");
    if (issuer) extend(NID_authority_key_identifier, "keyid");
    X509_sign(certificate, issuer ? issuer->key.get() : key.get(), EVP_sha256());
    return {key, made};
}

inline std::string PemText(const Identity& identity) {
    const std::unique_ptr<BIO, platform::ReleasedBy<BIO_free_all>> text(BIO_new(BIO_s_mem()));
    PEM_write_bio_X509(text.get(), identity.certificate.get());
    char* bytes = nullptr;
    const long size = BIO_get_mem_data(text.get(), &bytes);
    return {bytes, static_cast<std::size_t>(size)};
}

/// The key as it is pinned.
inline std::string KeyPin(const Identity& identity) {
    unsigned char* der = nullptr;
    const int size = i2d_PUBKEY(identity.key.get(), &der);
    unsigned char hash[32];
    EVP_Digest(der, static_cast<std::size_t>(size), hash, nullptr, EVP_sha256(), nullptr);
    OPENSSL_free(der);
    unsigned char text[45];
    EVP_EncodeBlock(text, hash, sizeof hash);
    return std::string("sha256//") + reinterpret_cast<const char*>(text);
}

/// Takes TLS connections one at a time, reads a request and gives one answer. Counts the bytes that
/// clients have sent inside TLS.
class TlsServer {
  public:
    explicit TlsServer(const Identity& identity, std::string answer = "HTTP/1.1 200 OK\r\nContent-Length: 0\r\n\r\n")
        : answer_(std::move(answer)), context_(SSL_CTX_new(TLS_server_method())) {
        SSL_CTX_use_certificate(context_.get(), identity.certificate.get());
        if (identity.between) SSL_CTX_add1_chain_cert(context_.get(), identity.between.get());
        SSL_CTX_use_PrivateKey(context_.get(), identity.key.get());
    }

    std::atomic<std::size_t> decrypted = 0;

    /// Whether this many connections have come to their ends; waits for them.
    bool HasServed(int connections) const {
        using Clock = std::chrono::steady_clock;
        for (const auto end = Clock::now() + std::chrono::seconds(20); served_ < connections && Clock::now() < end;)
            std::this_thread::yield();
        return served_ == connections;
    }

  private:
    /// Whether headers and body have come.
    static bool IsWhole(const std::string& request) {
        const std::size_t end = request.find("\r\n\r\n");
        const std::size_t length = request.find("Content-Length: ");
        return end != request.npos &&
               (length > end || request.size() >= end + 4 + std::stoul(request.substr(length + 16)));
    }

    void Serve(Socket connection) {
        const std::unique_ptr<SSL, platform::ReleasedBy<SSL_free>> tls(SSL_new(context_.get()));
        SSL_set_fd(tls.get(), static_cast<int>(connection));
        std::string request;
        char bytes[4096];
        if (SSL_accept(tls.get()) == 1) {
            for (int count; (count = SSL_read(tls.get(), bytes, sizeof bytes)) > 0;) {
                decrypted += static_cast<std::size_t>(count);
                request.append(bytes, static_cast<std::size_t>(count));
                if (IsWhole(request)) break;
            }
        }
        if (!request.empty()) SSL_write(tls.get(), answer_.data(), static_cast<int>(answer_.size()));
        if (!request.empty()) SSL_shutdown(tls.get());
        ++served_;
    }

    std::string answer_;
    std::atomic<int> served_ = 0;
    std::unique_ptr<SSL_CTX, platform::ReleasedBy<SSL_CTX_free>> context_;
    LoopbackServer server_{[this](Socket connection) { Serve(connection); }};

  public:
    const int port = server_.port;
};

}  // namespace kv::test

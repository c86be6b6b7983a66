// Certificates of servers, read and judged with OpenSSL. What is judged is what a server shows in its handshake, before
// anything is sent to it.
//
// Callable from any thread; a judge belongs to the thread of its transfer.
#pragma once

#include <exception>
#include <openssl/ssl.h>
#include <optional>
#include <string>
#include <string_view>

#include "platform/errors.h"
#include "platform/http.h"

namespace platform {

/// As the operations of the same names.
Error ReadCertificate(std::string_view der, HttpCertificate& certificate);
Error CountCertificates(std::string_view pem, std::size_t& count);

/// Watches the handshake of one connection.
class CertificateJudge {
  public:
    /// The trust is the caller's and outlives the judge. verifies: whether OpenSSL's own verdict counts where the trust
    /// asks for nothing. The host is a name or an address without brackets.
    CertificateJudge(const HttpServerTrust& trust, bool verifies, std::string host, std::string server);
    CertificateJudge(const CertificateJudge&) = delete;
    CertificateJudge& operator=(const CertificateJudge&) = delete;

    /// Has the judge asked in the handshakes of a context, which it must outlive.
    void Watch(SSL_CTX* context);

    /// Whether a request may go out: a certificate was shown, and passes.
    bool hasPassed() const { return hasPassed_; }

    /// What was shown; null before that.
    const std::optional<HttpPresentedCertificate>& presented() const { return presented_; }

  private:
    bool Judge(X509_STORE_CTX* handshake);
    static int OnCertificate(X509_STORE_CTX* handshake, void* self);

    const HttpServerTrust& trust_;
    bool verifies_;
    std::string host_;
    std::string server_;
    std::optional<HttpPresentedCertificate> presented_;
    bool hasPassed_ = false;
};

}  // namespace platform

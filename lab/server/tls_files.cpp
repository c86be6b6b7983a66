#include "lab/server/tls_files.h"

#include <cerrno>
#include <cstdio>
#include <fmt/format.h>
#include <memory>
#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/x509.h>
#include <system_error>

#include "platform/owned_handle.h"

namespace kv::lab {

namespace {

using platform::ReleasedBy;

using File = std::unique_ptr<std::FILE, ReleasedBy<std::fclose>>;
using Certificate = std::unique_ptr<X509, ReleasedBy<X509_free>>;
using Key = std::unique_ptr<EVP_PKEY, ReleasedBy<EVP_PKEY_free>>;

/// A key with a password is not asked for one.
int NoPassword(char*, int, int, void*) { return 0; }

std::string Unreadable(const std::string& path) {
    return fmt::format("{}: {}", path, std::generic_category().message(errno));
}

std::string Lacks(const std::string& path, const char* what) {
    return fmt::format("{} holds no {} in PEM; first comes the certificate's file, then the key's", path, what);
}

}  // namespace

std::string TlsFault(const std::string& certificate, const std::string& privateKey) {
    const File certificateFile(std::fopen(certificate.c_str(), "re"));
    if (!certificateFile) return Unreadable(certificate);
    const File keyFile(std::fopen(privateKey.c_str(), "re"));
    if (!keyFile) return Unreadable(privateKey);
    const Certificate shown(PEM_read_X509(certificateFile.get(), nullptr, NoPassword, nullptr));
    const Key key(PEM_read_PrivateKey(keyFile.get(), nullptr, NoPassword, nullptr));
    const bool fits = shown && key && X509_check_private_key(shown.get(), key.get()) == 1;
    ERR_clear_error();
    if (!shown) return Lacks(certificate, "certificate");
    if (!key) return Lacks(privateKey, "key without a password");
    return fits ? "" : fmt::format("{} is not the key of the certificate in {}", privateKey, certificate);
}

}  // namespace kv::lab

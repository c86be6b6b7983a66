// What every backend of the HTTP transport goes by when it judges a server's certificate. Private to platform/;
// callable from any thread.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "platform/http.h"

namespace platform {

/// Whether a trust asks for anything: then only a secure target will do.
bool AsksForCertificate(const HttpServerTrust& trust);

/// Whether a certificate passes every check that was asked for.
bool PassesChecks(const HttpPresentedCertificate& certificate);

/// Why a key is not one of the pinned ones; empty when it is.
std::string KeyProblem(const std::vector<std::string>& pinnedKeys, std::string_view keyPin);

/// Why a certificate for these names is not for a host: what it is for, and what was expected.
std::string NameProblem(const std::vector<std::string>& names, std::string_view host);

/// Bytes as hexadecimal pairs with colons between.
std::string FingerprintText(std::span<const unsigned char> bytes);

/// A host and port as one text; an IPv6 address in brackets.
std::string ServerText(std::string_view host, std::uint16_t port);

/// The certificates in a PEM text, each from its first line to its last, whatever stands between them. False when the
/// last one is cut.
bool SplitPem(std::string_view pem, std::vector<std::string>& certificates);

}  // namespace platform

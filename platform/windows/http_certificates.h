// Certificates of servers, read and judged with the system's own library.
//
// Callable from any thread.
#pragma once

#include <string>
#include <string_view>

#include "platform/windows/win32.h"

// After the system's main header, which it needs.
#include <wincrypt.h>

namespace platform {

/// As the operations of the same names.
Error ReadCertificate(std::string_view der, HttpCertificate& certificate);
Error CountCertificates(std::string_view pem, std::size_t& count);

/// What the checks of a trust say of a certificate, which stays the caller's. The host is a name or an address, which
/// may stand in brackets.
HttpPresentedCertificate JudgeCertificate(PCCERT_CONTEXT certificate, const HttpServerTrust& trust,
                                          const std::wstring& host, std::uint16_t port);

}  // namespace platform

// What the settings ask of a server's certificate, and what the log tells of certificates and of addresses that failed.
// Private to http/; callable from any thread.
#pragma once

#include <string>
#include <vector>

#include "http/http_transaction.h"
#include "platform/errors.h"
#include "platform/http.h"

namespace kv {

/// The checks that the settings ask for (gv_serverTrust). May throw std::bad_alloc.
platform::HttpServerTrust AskedTrust();

/// Why a step has failed, in one line: the library's reason, else the system's text, else the number.
std::string FailureReason(platform::Error failure, const std::string& reason);

/// Why nothing may be sent to a secure target or a plain one: a setting of trust cannot be used, or asks for a
/// certificate while the target is a plain one. Empty when something may. May throw std::bad_alloc.
std::string ReasonToSendNothing(bool secure);

/// winHttpSecureFailure, with a log line that says why, when ReasonToSendNothing has something to say of a target. Else
/// success.
platform::Error RefuseToSend(const char* routine, const TransactionTarget& target);

/// One log line for each certificate that passed and is not the one that its server showed before. May throw
/// std::bad_alloc.
void NoteCertificates(const std::vector<platform::HttpPresentedCertificate>& presented);

/// "proxy p:80" with its bypass list and without a password, or "no proxy".
std::string ProxyText(const TransactionTarget& target);

/// The log line of an attempt that failed: address, proxy and the library's reason, which may be empty; for a
/// certificate that was refused, what was expected and what was shown. May throw std::bad_alloc.
void LogFailedAddress(const char* routine, const TransactionTarget& target, platform::Error failure,
                      const std::string& reason, const std::vector<platform::HttpPresentedCertificate>& presented);

}  // namespace kv

// The steps that the two transaction routines share, for one attempt at one address: from opening the session to the
// answer's headers. Private to http/. An attempt belongs to the thread that makes it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "http/answerer.h"
#include "http/http_transaction.h"
#include "http/server_trust.h"
#include "platform/http.h"

namespace kv {

/// Bytes of a body that is received into memory, at most. Request lists and answers have some kilobytes; the limit is
/// there for a server gone wrong.
inline constexpr std::size_t maxResponseBytes = 64 * 1024 * 1024;

/// Owns a session, connection or request. Not an OwnedHandle, because a failed close is logged in the name of the
/// routine that opened it.
class OwnedHttpHandle {
  public:
    explicit OwnedHttpHandle(const char* routine) : routine_(routine) {}
    OwnedHttpHandle(OwnedHttpHandle&& other) noexcept
        : routine_(other.routine_), handle_(std::exchange(other.handle_, 0)) {}
    OwnedHttpHandle& operator=(OwnedHttpHandle&& other) noexcept;
    ~OwnedHttpHandle() { Close(); }

    platform::HttpHandle get() const { return handle_; }
    /// Where an operation puts the handle that it opens. Nothing is open here then.
    platform::HttpHandle& Place() { return handle_; }
    void Close();

  private:
    const char* routine_;
    platform::HttpHandle handle_ = 0;
};

struct HttpAttempt {
    // What is asked for.
    const char* routine;  // the transaction routine's name, for its log lines
    const TransactionTarget& target;
    std::u16string_view url;
    std::u16string_view verb;
    std::u16string_view acceptTypes;  // may be empty
    std::uint32_t securityFlags;      // bits added for a secure request
    bool limitConnectTime;            // to gv_httpTimeout
    bool keepAlive;
    bool restartReopensSession;  // else a restart begins at the request
    bool followsRedirects = true;
    const std::byte* body = nullptr;
    std::size_t bodySize = 0;
    platform::HttpServerTrust trust = AskedTrust();

    // How far it has come. Handles are closed from the last one up.
    std::vector<OwnedHttpHandle> retired = {};  // connection and session from before a restart; open until the end
    OwnedHttpHandle session{routine};
    OwnedHttpHandle connection{routine};
    OwnedHttpHandle request{routine};
    bool restartUsed = false;
    platform::Error result = platform::error::success;  // the last error, kept when rounds go on after it
};

/// Opens session, connection and request, sends, and waits for the answer, with the rounds and the restart of
/// http/http_transaction.h. Success also when the rounds ran out: there is no answer then, and reading its headers
/// fails. Any other failure is logged and returned.
platform::Error SendAndReceive(HttpAttempt& attempt);

/// Connects as an attempt does and asks for nothing: success when the server has shown a certificate. A failure is
/// logged and returned, with the library's reason, which may be empty; 407 when the proxy refused the credentials.
platform::Error LookAtCertificate(HttpAttempt& attempt, platform::HttpPresentedCertificate& certificate,
                                  std::string& reason);

/// Logs that an answer ended early at the attempt's address, with the library's reason. Throws nothing.
void TellOfBrokenAnswer(const HttpAttempt& attempt, platform::Error failure);

/// The answer's raw headers. A failure is logged; so are rounds that ran out, as the last one's failure.
platform::Error ReadRawHeaders(const HttpAttempt& attempt, std::u16string& headers);

/// The answer's status. A failure and a 407 are logged; what the other statuses mean is up to the caller.
platform::Error ReadStatus(const HttpAttempt& attempt, std::uint32_t& status);

/// Who has answered. A secure answer is the server's once that has shown its certificate.
Answerer AnswererOf(const HttpAttempt& attempt);

/// Makes a status that refuses the request the agent's last failure (foundation/agent_health.h).
void NoteRefusal(const HttpAttempt& attempt, std::uint32_t status);

inline constexpr std::uint32_t statusOk = 200;
inline constexpr std::uint32_t statusProxyAuthentication = 407;

/// Logs the failure of a step at level 1, with an explanation. The format takes the routine's name and the error.
void LogFailedStep(const char* format, const char* routine, platform::Error error);

}  // namespace kv

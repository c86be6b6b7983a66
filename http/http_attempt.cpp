#include "http/http_attempt.h"

#include "foundation/agent_health.h"
#include "foundation/agent_state.h"
#include "foundation/guarded.h"
#include "foundation/log.h"
#include "http/http_answers.h"
#include "platform/clock.h"

namespace kv {

namespace {

using platform::Error;
using platform::Http;
namespace error = platform::error;

/// Why a request ends with 407.
constexpr const char* proxyRefusal =
    "the proxy refused the user or the password (HTTP status 407); see ProxyUserName and ProxyPassword";

constexpr std::u16string_view userAgent = u"TallowmereOnCallAgent";

Error OpenSession(HttpAttempt& attempt) {
    const TransactionTarget& target = attempt.target;
    const Error failure = target.useProxy
                              ? Http().WinHttpOpen(userAgent, platform::HttpProxyAccess::namedProxy, target.proxyName,
                                                   target.proxyBypass, attempt.session.Place())
                              : Http().WinHttpOpen(userAgent, platform::HttpProxyAccess::noProxy, std::nullopt,
                                                   std::nullopt, attempt.session.Place());
    if (failure) LogFailedStep("%s :  Error in WinHttpOpen --> %d \n", attempt.routine, failure);
    return failure;
}

Error OpenConnection(HttpAttempt& attempt) {
    const auto port = static_cast<std::uint16_t>(attempt.target.port);
    const Error failure =
        Http().WinHttpConnect(attempt.session.get(), attempt.target.server, port, attempt.connection.Place());
    if (failure) LogFailedStep("%s :  Error in WinHttpConnect --> %d \n", attempt.routine, failure);
    return failure;
}

void AddConnectionHeader(const HttpAttempt& attempt) {
    const std::u16string_view header = attempt.keepAlive ? u"Connection: keep-active" : u"Connection: Closed";
    if (const Error failure = Http().WinHttpAddRequestHeaders(attempt.request.get(), header)) {
        LogFailedStep("%s :  Error in WinHttpAddRequestHeaders --> %d \n", attempt.routine, failure);
    }
}

Error SetNumber(const HttpAttempt& attempt, platform::HttpOption option, std::uint32_t value) {
    const Error failure = Http().WinHttpSetOptionNumber(attempt.request.get(), option, value);
    if (failure) LogFailedStep("%s :  Error in WinHttpSetOption --> %d \n", attempt.routine, failure);
    return failure;
}

Error TolerateCertificate(const HttpAttempt& attempt) {
    std::uint32_t flags = 0;
    if (const Error failure =
            Http().WinHttpQueryOption(attempt.request.get(), platform::HttpOption::securityFlags, flags)) {
        LogFailedStep("%s :  Error in WinHttpQueryOption --> %d \n", attempt.routine, failure);
    }
    return SetNumber(attempt, platform::HttpOption::securityFlags, flags | attempt.securityFlags);
}

bool IsCredential(const OptionalText& text) { return text && text->size() > 1; }

Error SetCredential(const HttpAttempt& attempt, platform::HttpOption option, const OptionalText& text) {
    const Error failure = Http().WinHttpSetOptionText(attempt.request.get(), option, *text);
    if (failure) LogFailedStep("%s :  Error in InternetSetOption --> %d \n", attempt.routine, failure);
    return failure;
}

Error SetProxyCredentials(const HttpAttempt& attempt) {
    const TransactionTarget& target = attempt.target;
    if (!target.useProxy || !IsCredential(target.proxyUser)) return error::success;
    if (const Error failure = SetCredential(attempt, platform::HttpOption::proxyUserName, target.proxyUser)) {
        return failure;
    }
    if (!IsCredential(target.proxyPassword)) return error::success;
    return SetCredential(attempt, platform::HttpOption::proxyPassword, target.proxyPassword);
}

Error OpenRequest(HttpAttempt& attempt) {
    const std::uint32_t flags =
        platform::httpFlagBypassProxyCache | (attempt.target.secure ? platform::httpFlagSecure : 0);
    if (const Error failure = Http().WinHttpOpenRequest(attempt.connection.get(), attempt.verb, attempt.url,
                                                        attempt.acceptTypes, flags, attempt.request.Place())) {
        LogFailedStep("%s :  Error in WinHttpOpenRequest --> %d \n", attempt.routine, failure);
        return failure;
    }
    AddConnectionHeader(attempt);
    if (attempt.limitConnectTime) {
        const auto limit = static_cast<std::uint32_t>(agentState.gv_httpTimeout);
        if (const Error failure = SetNumber(attempt, platform::HttpOption::connectTimeout, limit)) return failure;
    }
    if (!attempt.followsRedirects) {
        constexpr auto option = platform::HttpOption::redirectPolicy;
        if (const Error failure = SetNumber(attempt, option, platform::redirectNever)) return failure;
    }
    if (attempt.target.secure) {
        if (const Error failure = TolerateCertificate(attempt)) return failure;
        if (const Error failure = Http().SetServerTrust(attempt.request.get(), attempt.trust)) {
            LogFailedStep("%s :  Error in SetServerTrust --> %d \n", attempt.routine, failure);
            return failure;
        }
    }
    return SetProxyCredentials(attempt);
}

/// Opens what is not open: all three handles at first, what a restart has taken away later.
Error OpenHandles(HttpAttempt& attempt) {
    if (attempt.session.get() == 0) {
        if (const Error failure = OpenSession(attempt)) return failure;
        if (const Error failure = OpenConnection(attempt)) return failure;
    }
    return OpenRequest(attempt);
}

std::vector<platform::HttpPresentedCertificate> PresentedTo(const HttpAttempt& attempt) {
    std::vector<platform::HttpPresentedCertificate> presented;
    if (Http().QueryPresentedCertificates(attempt.request.get(), presented)) presented.clear();
    return presented;
}

/// Tells of certificates that are new, and of what went wrong. Telling is worth no request: memory that runs out ends
/// the telling alone.
void TellOfServer(const HttpAttempt& attempt, Error failure) {
    RunGuarded("TellOfServer", [&] {
        const std::vector<platform::HttpPresentedCertificate> presented = PresentedTo(attempt);
        NoteCertificates(presented);
        if (failure == error::success) return;
        std::string reason;
        if (Http().QueryFailureText(attempt.request.get(), reason)) reason.clear();
        LogFailedAddress(attempt.routine, attempt.target, failure, reason, presented);
    });
}

/// The one restart of an attempt: false when it has been used.
bool TakeRestart(HttpAttempt& attempt) {
    if (attempt.restartUsed) return false;
    Log1("%s : Going to close the request handle and going to resending the data to the server %s \n", attempt.routine,
         attempt.target.server);
    attempt.restartUsed = true;
    attempt.request.Close();
    if (attempt.restartReopensSession) {
        attempt.retired.push_back(std::exchange(attempt.connection, OwnedHttpHandle(attempt.routine)));
        attempt.retired.push_back(std::exchange(attempt.session, OwnedHttpHandle(attempt.routine)));
    }
    return true;
}

enum class Rounds {
    over,     // answered, or out of rounds
    restart,  // to be done again on new handles
    failed,   // HttpAttempt::result says why
};

Rounds FailSend(HttpAttempt& attempt, Error failure) {
    const bool mayRestart = failure == error::winHttpLoginFailure || failure == error::winHttpOperationCancelled;
    if (mayRestart && TakeRestart(attempt)) return Rounds::restart;
    LogFailedStep("%s :  Error in WinHttpSendRequest -> %d \n", attempt.routine, failure);
    attempt.result = failure;
    return Rounds::failed;
}

Rounds FailReceive(HttpAttempt& attempt, Error failure) {
    Log2("%s :  Error - WinHttpReceiveResponse --> %d \n", attempt.routine, failure);
    HttpGetLastError(failure);
    attempt.result = failure;
    return Rounds::failed;
}

Rounds RunRounds(HttpAttempt& attempt) {
    for (int round = 0; round < maxRounds; ++round) {
        if (const Error failure = Http().WinHttpSendRequest(attempt.request.get(), attempt.body, attempt.bodySize)) {
            return FailSend(attempt, failure);
        }
        const Error failure = Http().WinHttpReceiveResponse(attempt.request.get());
        if (failure == error::success) return Rounds::over;
        if (failure == error::winHttpResendRequest) {
            Log1("%s : Resending the data to the server %s \n", attempt.routine, attempt.target.server);
            platform::Clock().Sleep(resendPause);
        } else if (failure != error::winHttpLoginFailure) {
            return FailReceive(attempt, failure);
        } else if (TakeRestart(attempt)) {
            return Rounds::restart;
        }
        attempt.result = failure;
    }
    return Rounds::over;
}

}  // namespace

OwnedHttpHandle& OwnedHttpHandle::operator=(OwnedHttpHandle&& other) noexcept {
    Close();
    routine_ = other.routine_;
    handle_ = std::exchange(other.handle_, 0);
    return *this;
}

void OwnedHttpHandle::Close() {
    if (handle_ == 0) return;
    if (const Error failure = Http().WinHttpCloseHandle(std::exchange(handle_, 0))) {
        LogFailedStep("%s :  Error in WinHttpCloseHandle --> %d \n", routine_, failure);
    }
}

Error SendAndReceive(HttpAttempt& attempt) {
    if (const Error refusal = RefuseToSend(attempt.routine, attempt.target)) return refusal;
    Rounds rounds = Rounds::restart;
    while (rounds == Rounds::restart) {
        if (const Error failure = OpenHandles(attempt)) {
            TellOfServer(attempt, failure);
            return failure;
        }
        rounds = RunRounds(attempt);
    }
    const Error result = rounds == Rounds::failed ? attempt.result : error::success;
    TellOfServer(attempt, result);
    return result;
}

void TellOfBrokenAnswer(const HttpAttempt& attempt, Error failure) { TellOfServer(attempt, failure); }

namespace {

/// What a proxy's answer means that led to no server: it is the answer of a request that has been sent.
Error TunnelRefusal(const HttpAttempt& attempt, std::string& reason) {
    std::uint32_t status = 0;
    reason = "the proxy did not lead to the server";
    if (Http().WinHttpReceiveResponse(attempt.request.get()) ||
        Http().WinHttpQueryHeadersNumber(attempt.request.get(), platform::HttpHeaderQuery::statusCodeNumber, status)) {
        return error::winHttpConnectionError;
    }
    if (status == statusProxyAuthentication)
        reason = proxyRefusal;
    else
        reason += " (its HTTP status is " + std::to_string(status) + ")";
    return status == statusProxyAuthentication ? status : error::winHttpConnectionError;
}

}  // namespace

Error LookAtCertificate(HttpAttempt& attempt, platform::HttpPresentedCertificate& certificate, std::string& reason) {
    attempt.trust.onlyLook = true;
    if (const Error failure = OpenHandles(attempt)) return failure;
    const Error result = Http().WinHttpSendRequest(attempt.request.get(), nullptr, 0);
    const std::vector<platform::HttpPresentedCertificate> presented = PresentedTo(attempt);
    if (result == error::winHttpOperationCancelled && !presented.empty()) {
        certificate = presented.back();
        return error::success;
    }
    if (Http().QueryFailureText(attempt.request.get(), reason)) reason.clear();
    LogFailedStep("%s :  Error in WinHttpSendRequest -> %d \n", attempt.routine, result);
    return result != error::success ? result : TunnelRefusal(attempt, reason);
}

Error ReadRawHeaders(const HttpAttempt& attempt, std::u16string& headers) {
    const Error failure =
        Http().WinHttpQueryHeadersText(attempt.request.get(), platform::HttpHeaderQuery::rawHeadersCrlf, headers);
    if (failure) {
        LogFailedStep("%s :  Error in WinHttpQueryHeaders --> %d \n", attempt.routine, failure);
        TellOfBrokenAnswer(attempt, attempt.result != error::success ? attempt.result : failure);
    }
    return failure;
}

Answerer AnswererOf(const HttpAttempt& attempt) {
    if (!attempt.target.useProxy) return Answerer::server;
    if (!attempt.target.secure) return Answerer::either;
    return PresentedTo(attempt).empty() ? Answerer::proxy : Answerer::server;
}

namespace {

/// Whether an answer is the proxy's own: it led to no server that shows a certificate, or a plain one says so.
bool IsOfProxy(const HttpAttempt& attempt, std::uint32_t status) {
    const Answerer answerer = AnswererOf(attempt);
    return answerer == Answerer::proxy || (answerer == Answerer::either && status >= 502 && status <= 504);
}

/// Who may have refused a request in the place of the server, behind what was refused; empty without a proxy.
std::string RefuserText(const HttpAttempt& attempt) {
    const Answerer answerer = AnswererOf(attempt);
    if (answerer == Answerer::server) return "";
    const std::string proxy = ProxyText(attempt.target);
    return answerer == Answerer::either ? ", by the server or the " + proxy
                                        : ", by the " + proxy + ", which did not lead to the server";
}

}  // namespace

Error ReadStatus(const HttpAttempt& attempt, std::uint32_t& status) {
    const Error failure =
        Http().WinHttpQueryHeadersNumber(attempt.request.get(), platform::HttpHeaderQuery::statusCodeNumber, status);
    if (failure) {
        LogFailedStep("%s : WinHttpQueryHeaders failed with the error code while getting http status code %d \n",
                      attempt.routine, failure);
        TellOfBrokenAnswer(attempt, failure);
    } else if (status == statusProxyAuthentication) {
        Log1("%s : Proxy Credentials are failed to authenticate %d \n", attempt.routine, status);
        RunGuarded("LogFailedAddress", [&] {
            if (attempt.target.useProxy) LogFailedAddress(attempt.routine, attempt.target, status, proxyRefusal, {});
        });
    } else {
        RunGuarded("NoteContact", [&] {
            if (!IsOfProxy(attempt, status)) return NoteContact();
            if (!attempt.target.secure) return;
            const std::string reason = LogText("the proxy itself answers with HTTP status %d", status);
            LogFailedAddress(attempt.routine, attempt.target, status, reason, {});
        });
    }
    return failure;
}

void NoteRefusal(const HttpAttempt& attempt, std::uint32_t status) {
    const auto text = [&] {
        return LogText("%s at %s:%d: refused with HTTP status %d%s", PathOfUrl(attempt.url), attempt.target.server,
                       attempt.target.port, status, RefuserText(attempt));
    };
    NoteFailureOf(text, FailureKind::sending);
}

void LogFailedStep(const char* format, const char* routine, Error error) {
    Log1(format, routine, error);
    HttpGetLastError(error);
}

}  // namespace kv

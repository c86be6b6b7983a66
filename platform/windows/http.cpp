// The HTTP operations on WinHTTP itself. Each is passed on as it comes. What is done besides keeps the promises of
// platform/http.h that the system leaves open: a redirect is followed by a request of its own, so that a POST stays a
// POST, and a body that breaks off is told from one that is whole.
#include "platform/http.h"

#include <array>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "platform/backend.h"
#include "platform/http_frame.h"
#include "platform/http_trust.h"
#include "platform/windows/http_body.h"
#include "platform/windows/http_calls.h"
#include "platform/windows/http_certificates.h"
#include "platform/windows/http_target.h"
#include "platform/windows/win32.h"

// After the system's main header, which it needs.
#include <wincrypt.h>

namespace platform {

namespace {

/// The backend; platform/http_frame.h says what each routine is for.
struct WinHttp {
    // What is opened from a record keeps it, so that the system's handles close from the request up in any case.

    struct Session {
        bool proxied = false;
        InternetHandle handle;
    };

    struct Connection {
        std::shared_ptr<Session> session;
        std::wstring host;
        std::uint16_t port = 0;
        InternetHandle handle;
    };

    struct Request : HttpSending {
        std::shared_ptr<Connection> connection;
        HttpTarget target;

        // What the system was told, to be told again where a redirect leads on.
        std::wstring acceptType;  // may be empty
        DWORD flags = 0;
        std::vector<std::wstring> headers;
        std::map<HttpOption, std::uint32_t> numbers;
        std::map<HttpOption, std::wstring> texts;

        InternetHandle redirectedConnection;  // null at the request's own target
        InternetHandle handle;                // null, too, once a certificate has been refused
        HttpTarget place;                     // where the request is open
        bool isJudged = false;                // the certificate there has passed what the trust asks
        std::optional<Error> refusal;         // why the sending was broken off
        std::optional<HttpBody> answer;
    };

    static Error Open(Session& session, std::u16string_view userAgent, std::u16string_view proxyList,
                      std::u16string_view bypassList);
    static Error Connect(Connection& connection, std::u16string_view server, std::uint16_t port);
    static Error OpenRequest(Request& request, std::u16string_view url, std::u16string_view acceptTypes,
                             std::uint32_t flags);
    static Error AddHeader(Request& request, std::u16string_view header);
    static Error SetNumber(Request& request, HttpOption option, std::uint32_t value);
    static Error QueryNumber(Request& request, HttpOption option, std::uint32_t& value);
    static Error SetText(Request& request, HttpOption option, std::u16string_view value);
    static Error Send(Request& request);
    static Error Resend(Request& request, const HttpTarget& target);
    static Error Receive(Request& request);
    static void EndReceive(Request& request, Error result);
    static std::optional<HttpTarget> Redirection(Request& request, const HttpTarget& present);
    static Error RawHeaders(Request& request, std::u16string& text);
    static Error Status(Request& request, std::uint32_t& status);
    static Error ContentLength(Request& request, std::uint64_t& length);
    static Error WaitForBody(Request& request, std::size_t& available) { return request.answer->Wait(available); }
    static std::size_t Take(Request& request, std::byte* buffer, std::size_t size) {
        return request.answer->Take(buffer, size);
    }

    static Error ReadCertificate(std::string_view der, HttpCertificate& certificate) {
        return platform::ReadCertificate(der, certificate);
    }
    static Error CountCertificates(std::string_view pem, std::size_t& count) {
        return platform::CountCertificates(pem, count);
    }

    /// What other records were opened from is closed for the system with the last of those.
    template <class Record>
    static Error Close(const std::shared_ptr<Record>& record) {
        return record.use_count() == 1 ? record->handle.Close() : error::success;
    }
};

/// Secure connections of today: by default the oldest systems offer none of these. A system that does not know the
/// newest refuses the set that it is in; one that knows neither keeps its default.
void OfferPresentProtocols(HINTERNET session) {
    constexpr DWORD sets[] = {WINHTTP_FLAG_SECURE_PROTOCOL_TLS1_2 | WINHTTP_FLAG_SECURE_PROTOCOL_TLS1_3,
                              WINHTTP_FLAG_SECURE_PROTOCOL_TLS1_2};
    for (const DWORD set : sets) {
        if (SetNumber(session, WINHTTP_OPTION_SECURE_PROTOCOLS, set) == error::success) return;
    }
}

Error WinHttp::Open(Session& session, std::u16string_view userAgent, std::u16string_view proxyList,
                    std::u16string_view bypassList) {
    const std::wstring proxy = WideOf(proxyList);
    const std::wstring bypass = WideOf(bypassList);
    session.proxied = !proxy.empty();
    const HttpProxyAccess access = proxy.empty() ? HttpProxyAccess::noProxy : HttpProxyAccess::namedProxy;
    session.handle = InternetHandle(::WinHttpOpen(WideOf(userAgent).c_str(), static_cast<DWORD>(access),
                                                  proxy.empty() ? WINHTTP_NO_PROXY_NAME : proxy.c_str(),
                                                  bypass.empty() ? WINHTTP_NO_PROXY_BYPASS : bypass.c_str(), 0));
    if (!session.handle) return LastHttpError();
    OfferPresentProtocols(session.handle.get());
    return error::success;
}

Error WinHttp::Connect(Connection& connection, std::u16string_view server, std::uint16_t port) {
    const auto host = HostFor(server);
    if (!host) return error::winHttpInvalidUrl;
    connection.host = *host;
    connection.port = port;
    connection.handle = InternetHandle(::WinHttpConnect(connection.session->handle.get(), host->c_str(), port, 0));
    return connection.handle ? error::success : LastHttpError();
}

/// Headers of one answer, at most: four times the system's own limit.
constexpr DWORD largestHeaders = 256 * 1024;

/// The options of every request: the limits of platform/http.h, and what WinHTTP must not do by itself. No credentials
/// but the proxy's are sent anywhere.
Error SetOwnOptions(HINTERNET request) {
    constexpr std::pair<DWORD, DWORD> options[] = {
        {WINHTTP_OPTION_RESOLVE_TIMEOUT, 60000},
        {WINHTTP_OPTION_CONNECT_TIMEOUT, 60000},
        {WINHTTP_OPTION_SEND_TIMEOUT, 30000},
        {WINHTTP_OPTION_RECEIVE_TIMEOUT, 30000},
        {WINHTTP_OPTION_RECEIVE_RESPONSE_TIMEOUT, DWORD{std::chrono::milliseconds(httpHeaderLimit).count()}},
        {WINHTTP_OPTION_AUTOLOGON_POLICY, WINHTTP_AUTOLOGON_SECURITY_LEVEL_HIGH},
        {WINHTTP_OPTION_DISABLE_FEATURE, WINHTTP_DISABLE_COOKIES | WINHTTP_DISABLE_REDIRECTS},
    };
    for (const auto& [option, value] : options) {
        if (const Error failure = SetNumber(request, option, value)) return failure;
    }
    // A system that does not know it goes on with its own limit.
    DWORD headers = largestHeaders;
    ::WinHttpSetOption(request, WINHTTP_OPTION_MAX_RESPONSE_HEADER_SIZE, &headers, sizeof headers);
    return error::success;
}

/// Judges the certificate of the server that a request is about to be sent to. False when nothing may go out.
bool MayBeSent(WinHttp::Request& request) {
    request.isJudged = false;
    PCCERT_CONTEXT certificate = nullptr;
    DWORD size = sizeof certificate;
    if (!::WinHttpQueryOption(request.handle.get(), WINHTTP_OPTION_SERVER_CERT_CONTEXT, &certificate, &size)) {
        // A proxy is asked for a tunnel: there is no secure connection yet.
        const bool tunnel = LastError() == ERROR_WINHTTP_INCORRECT_HANDLE_STATE && request.connection->session->proxied;
        return tunnel || !AsksForCertificate(request.trust);
    }
    const INTERNET_PORT port = request.place.port == 0 ? INTERNET_DEFAULT_HTTPS_PORT : request.place.port;
    auto presented = JudgeCertificate(certificate, request.trust, request.place.host, port);
    ::CertFreeCertificateContext(certificate);
    const bool passes = PassesChecks(presented);
    // It is sent more than once when a proxy wants to know more.
    if (request.presented.empty() || request.presented.back().server != presented.server ||
        request.presented.back().der != presented.der)
        request.presented.push_back(std::move(presented));
    request.isJudged = passes && !request.trust.onlyLook;
    return request.isJudged;
}

/// Called by the system, on the thread that sends, when it is connected and has sent nothing: the first moment at which
/// a certificate can be read. To close the request is the way to break it off here.
void CALLBACK OnStatus(HINTERNET, DWORD_PTR context, DWORD status, void*, DWORD) {
    if (status != WINHTTP_CALLBACK_STATUS_SENDING_REQUEST || context == 0) return;
    auto& request = *reinterpret_cast<WinHttp::Request*>(context);
    if (request.refusal) return;
    bool passes = false;
    try {
        passes = MayBeSent(request);
    } catch (const std::exception&) {
        passes = !AsksForCertificate(request.trust);
    }
    if (passes) return;
    request.refusal = request.trust.onlyLook ? error::winHttpOperationCancelled : error::winHttpSecureFailure;
    CutConnection(request.handle.get());
    request.handle.Close();
}

/// Opens the request at a target of the connection, in place of where it was open before.
Error OpenAt(WinHttp::Request& request, HINTERNET connection, const HttpTarget& target) {
    request.answer.reset();
    request.handle.Close();
    request.place = target;
    std::array<const wchar_t*, 2> acceptTypes = {request.acceptType.c_str(), nullptr};
    const DWORD secure = target.secure ? WINHTTP_FLAG_SECURE : 0;
    request.handle = InternetHandle(
        ::WinHttpOpenRequest(connection, request.post ? L"POST" : L"GET", target.path.c_str(), nullptr,
                             WINHTTP_NO_REFERER, request.acceptType.empty() ? nullptr : acceptTypes.data(),
                             (request.flags & ~DWORD{WINHTTP_FLAG_SECURE}) | secure | WINHTTP_FLAG_ESCAPE_DISABLE));
    if (!request.handle) return LastHttpError();
    // A server that asks for a certificate of ours learns that there is none, and decides whether to go on.
    if (target.secure && !::WinHttpSetOption(request.handle.get(), WINHTTP_OPTION_CLIENT_CERT_CONTEXT,
                                             WINHTTP_NO_CLIENT_CERT_CONTEXT, 0)) {
        return LastHttpError();
    }
    if (target.secure && ::WinHttpSetStatusCallback(request.handle.get(), OnStatus, WINHTTP_CALLBACK_FLAG_SEND_REQUEST,
                                                    0) == WINHTTP_INVALID_STATUS_CALLBACK) {
        return LastHttpError();
    }
    return SetOwnOptions(request.handle.get());
}

Error WinHttp::OpenRequest(Request& request, std::u16string_view url, std::u16string_view acceptTypes,
                           std::uint32_t flags) {
    const Connection& connection = *request.connection;
    request.target = {.secure = (flags & httpFlagSecure) != 0,
                      .host = connection.host,
                      .port = connection.port,
                      .path = PathFor(url)};
    request.acceptType = WideOf(acceptTypes);
    request.flags = flags;
    return OpenAt(request, connection.handle.get(), request.target);
}

Error AddHeaderLine(HINTERNET request, const std::wstring& header) {
    return HttpResultOf(
        ::WinHttpAddRequestHeaders(request, header.c_str(), static_cast<DWORD>(-1), WINHTTP_ADDREQ_FLAG_ADD));
}

Error WinHttp::AddHeader(Request& request, std::u16string_view header) {
    if (const Error failure = AddHeaderLine(request.handle.get(), WideOf(header))) return failure;
    request.headers.push_back(WideOf(header));
    return error::success;
}

/// Sets an option; the limit on connecting holds for the lookup before it, too.
Error ApplyNumber(HINTERNET request, HttpOption option, std::uint32_t value) {
    if (option == HttpOption::connectTimeout) {
        if (const Error failure = SetNumber(request, WINHTTP_OPTION_RESOLVE_TIMEOUT, value)) return failure;
    }
    return SetNumber(request, static_cast<DWORD>(option), value);
}

Error WinHttp::SetNumber(Request& request, HttpOption option, std::uint32_t value) {
    if (const Error failure = ApplyNumber(request.handle.get(), option, value)) return failure;
    request.numbers[option] = value;
    return error::success;
}

Error WinHttp::QueryNumber(Request& request, HttpOption option, std::uint32_t& value) {
    DWORD found = 0;
    DWORD size = sizeof found;
    const Error result =
        HttpResultOf(::WinHttpQueryOption(request.handle.get(), static_cast<DWORD>(option), &found, &size));
    value = found;
    return result;
}

Error WinHttp::SetText(Request& request, HttpOption option, std::u16string_view value) {
    if (const Error failure = platform::SetText(request.handle.get(), static_cast<DWORD>(option), WideOf(value)))
        return failure;
    request.texts[option] = WideOf(value);
    return error::success;
}

/// Has the proxy's credentials offered with the request; those of the options alone wait to be asked for.
Error OfferProxyCredentials(const WinHttp::Request& request) {
    const auto user = request.texts.find(HttpOption::proxyUserName);
    if (user == request.texts.end()) return error::success;
    const auto password = request.texts.find(HttpOption::proxyPassword);
    return HttpResultOf(::WinHttpSetCredentials(
        request.handle.get(), WINHTTP_AUTH_TARGET_PROXY, WINHTTP_AUTH_SCHEME_BASIC, user->second.c_str(),
        password == request.texts.end() ? L"" : password->second.c_str(), nullptr));
}

constexpr DWORD allLetPass = ignoreUnknownAuthority | ignoreWrongUsage | ignoreInvalidCommonName | ignoreInvalidDate;

/// Sends the request to where it is open, without its body if that may only follow.
Error SendHeaders(WinHttp::Request& request, bool withBody) {
    const auto size = static_cast<DWORD>(request.bodySize);
    const DWORD sent = withBody ? size : 0;
    void* body = sent == 0 ? WINHTTP_NO_REQUEST_DATA : const_cast<std::byte*>(request.body);
    return HttpResultOf(::WinHttpSendRequest(request.handle.get(), WINHTTP_NO_ADDITIONAL_HEADERS, 0, body, sent, size,
                                             reinterpret_cast<DWORD_PTR>(&request)));
}

/// The same when the trust asks for something: it alone decides then, and what is to be kept from strangers, the body,
/// follows only once it has. Without a certificate there is only what a proxy says instead of leading on.
Error SendToTrusted(WinHttp::Request& request) {
    if (const Error failure = SetNumber(request.handle.get(), WINHTTP_OPTION_SECURITY_FLAGS, allLetPass))
        return failure;
    if (const Error failure = SendHeaders(request, false)) return failure;
    if (request.refusal || request.bodySize == 0 || !request.isJudged) return error::success;
    DWORD written = 0;
    return HttpResultOf(
        ::WinHttpWriteData(request.handle.get(), request.body, static_cast<DWORD>(request.bodySize), &written));
}

/// Sends the request to where it is open.
Error SendFromHere(WinHttp::Request& request) {
    request.answer.reset();
    request.refusal.reset();
    request.isJudged = false;
    if (const Error failure = OfferProxyCredentials(request)) return failure;
    const Error result = AsksForCertificate(request.trust) ? SendToTrusted(request) : SendHeaders(request, true);
    const Error failure = request.refusal.value_or(result);
    if (failure != error::success) request.failureText = FailureText(failure);
    return failure;
}

/// Tells a request that was opened again what it was told before.
Error TellAgain(const WinHttp::Request& request) {
    HINTERNET handle = request.handle.get();
    for (const std::wstring& header : request.headers) {
        if (const Error failure = AddHeaderLine(handle, header)) return failure;
    }
    for (const auto& [option, value] : request.numbers) {
        if (const Error failure = ApplyNumber(handle, option, value)) return failure;
    }
    for (const auto& [option, value] : request.texts) {
        if (const Error failure = SetText(handle, static_cast<DWORD>(option), value)) return failure;
    }
    return error::success;
}

/// Brings a request that a redirect has led away back to its own target.
Error ReturnToTarget(WinHttp::Request& request) {
    if (!request.redirectedConnection && request.handle) return error::success;
    if (const Error failure = OpenAt(request, request.connection->handle.get(), request.target)) return failure;
    request.redirectedConnection.Close();
    return TellAgain(request);
}

Error WinHttp::Send(Request& request) {
    if (request.bodySize > MAXDWORD) return error::invalidParameter;  // WinHTTP counts in 32 bits
    if (const Error failure = ReturnToTarget(request)) return failure;
    return SendFromHere(request);
}

Error WinHttp::Resend(Request& request, const HttpTarget& target) {
    InternetHandle connection(
        ::WinHttpConnect(request.connection->session->handle.get(), target.host.c_str(), target.port, 0));
    if (!connection) return LastHttpError();
    if (const Error failure = OpenAt(request, connection.get(), target)) return failure;
    request.redirectedConnection = std::move(connection);
    if (const Error failure = TellAgain(request)) return failure;
    return SendFromHere(request);
}

void WinHttp::EndReceive(Request& request, Error result) {
    if (result == error::success)
        request.answer.emplace(request.handle.get());
    else
        request.failureText = FailureText(result);
}

/// Whether a secure answer has come over the secure connection, and not from a proxy that refused to lead there.
bool CameSecurely(HINTERNET request) {
    PCCERT_CONTEXT certificate = nullptr;
    DWORD size = sizeof certificate;
    if (!::WinHttpQueryOption(request, WINHTTP_OPTION_SERVER_CERT_CONTEXT, &certificate, &size)) return false;
    ::CertFreeCertificateContext(certificate);
    return true;
}

Error WinHttp::Receive(Request& request) {
    const Error result = HttpResultOf(::WinHttpReceiveResponse(request.handle.get(), nullptr));
    if (request.refusal) return *request.refusal;
    // The answer of a server whose certificate nobody has judged is not taken.
    const bool isUnjudged = AsksForCertificate(request.trust) && !request.isJudged;
    return result == error::success && isUnjudged && CameSecurely(request.handle.get()) ? error::winHttpSecureFailure
                                                                                        : result;
}

/// A proxy that refuses a tunnel may not say where to go instead.
std::optional<HttpTarget> WinHttp::Redirection(Request& request, const HttpTarget& present) {
    std::wstring location;
    if (QueryHeaderText(request.handle.get(), WINHTTP_QUERY_LOCATION, location) != error::success) return std::nullopt;
    if (present.secure && !CameSecurely(request.handle.get())) return std::nullopt;
    return RedirectedTarget(present, location);
}

Error WinHttp::RawHeaders(Request& request, std::u16string& text) {
    std::wstring headers;
    const Error result = QueryHeaderText(request.handle.get(), WINHTTP_QUERY_RAW_HEADERS_CRLF, headers);
    text = Utf16FromWide(headers);
    return result;
}

Error WinHttp::Status(Request& request, std::uint32_t& status) {
    DWORD found = 0;
    const Error result = QueryStatus(request.handle.get(), found);
    status = found;
    return result;
}

Error WinHttp::ContentLength(Request& request, std::uint64_t& length) {
    return QueryContentLength(request.handle.get(), length);
}

}  // namespace

HttpOperations WindowsHttp() { return HttpFrame<WinHttp>::Operations(); }

void InstallHttp() { CurrentOperations<HttpOperations>() = WindowsHttp(); }

}  // namespace platform

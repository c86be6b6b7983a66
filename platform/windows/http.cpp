// The WinHTTP operations on WinHTTP itself. Each is passed on as it comes; what is done besides keeps the promises of
// platform/http.h that the system leaves open: redirects are followed here, where a POST stays one; a body that breaks
// off is told from one that is whole; a handle's record knows of what kind it is.
#include "platform/http.h"

#include <array>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <variant>
#include <vector>

#include "platform/backend.h"
#include "platform/http_handles.h"
#include "platform/http_rules.h"
#include "platform/windows/http_body.h"
#include "platform/windows/http_calls.h"
#include "platform/windows/http_target.h"
#include "platform/windows/win32.h"

// After the system's main header, which it needs.
#include <wincrypt.h>

namespace platform {

namespace {

struct Session {
    InternetHandle handle;
};

// What is opened from a record keeps it, so that the system's handles close from the request up in any case.

struct Connection {
    std::shared_ptr<Session> session;
    std::wstring host;
    std::uint16_t port = 0;
    InternetHandle handle;
};

struct Request {
    std::shared_ptr<Connection> connection;
    HttpTarget target;

    // What the system was told, to be told again where a redirect leads on.
    bool post = false;
    std::wstring acceptType;  // empty for none
    DWORD flags = 0;
    std::vector<std::wstring> headers;
    std::map<HttpOption, std::uint32_t> numbers;
    std::map<HttpOption, std::wstring> texts;
    const std::byte* body = nullptr;  // the caller's
    std::size_t bodySize = 0;

    enum class Stage { opened, sent, answered } stage = Stage::opened;
    InternetHandle redirectedConnection;  // none at the request's own target
    InternetHandle handle;
    std::optional<HttpBody> answer;
};

using Handles = HttpHandles<Session, Connection, Request>;

/// Never freed: a detached thread may be in a transaction while the process ends.
Handles& AllHandles() {
    static auto* const handles = new Handles;
    return *handles;
}

/// Secure connections of today: by default the oldest systems offer none of these. A system that does not know the
/// newest refuses the set that it is in; one that knows neither keeps its default.
void OfferPresentProtocols(HINTERNET session) {
    constexpr DWORD sets[] = {WINHTTP_FLAG_SECURE_PROTOCOL_TLS1_2 | WINHTTP_FLAG_SECURE_PROTOCOL_TLS1_3,
                              WINHTTP_FLAG_SECURE_PROTOCOL_TLS1_2};
    for (const DWORD set : sets) {
        if (SetNumber(session, WINHTTP_OPTION_SECURE_PROTOCOLS, set) == error::success) return;
    }
}

Error Open(std::u16string_view userAgent, HttpProxyAccess access, const std::optional<std::u16string>& proxyName,
           const std::optional<std::u16string>& proxyBypass, HttpHandle& session) {
    const bool proxied = access == HttpProxyAccess::namedProxy;
    const std::wstring name = WideOf(proxyName.value_or(u""));
    const std::wstring bypass = WideOf(proxyBypass.value_or(u""));
    if (proxied && !NamesProxy(proxyName.value_or(u""))) return error::invalidParameter;
    InternetHandle handle(::WinHttpOpen(WideOf(userAgent).c_str(), static_cast<DWORD>(access),
                                        proxied ? name.c_str() : WINHTTP_NO_PROXY_NAME,
                                        proxied && !bypass.empty() ? bypass.c_str() : WINHTTP_NO_PROXY_BYPASS, 0));
    if (!handle) return LastHttpError();
    OfferPresentProtocols(handle.Get());
    session = AllHandles().Add(std::make_shared<Session>(Session{std::move(handle)}));
    return error::success;
}

Error Connect(HttpHandle session, std::u16string_view server, std::uint16_t port, HttpHandle& connection) {
    std::shared_ptr<Session> owner;
    if (const Error failure = AllHandles().Find(session, owner)) return failure;
    const auto host = HostFor(server);
    if (!host) return error::winHttpInvalidUrl;
    InternetHandle handle(::WinHttpConnect(owner->handle.Get(), host->c_str(), port, 0));
    if (!handle) return LastHttpError();
    connection =
        AllHandles().Add(std::make_shared<Connection>(Connection{std::move(owner), *host, port, std::move(handle)}));
    return error::success;
}

/// The options of every request: the limits of platform/http.h, and what WinHTTP must not do by itself. Nobody's
/// credentials but those of the proxy are sent anywhere.
constexpr DWORD largestHeaders = 256 * 1024;  // bytes; four times the system's own limit

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

/// Opens the request at a target of the connection, in place of where it was open before.
Error OpenAt(Request& request, HINTERNET connection, const HttpTarget& target) {
    request.answer.reset();
    request.handle.Close();
    std::array<const wchar_t*, 2> acceptTypes = {request.acceptType.c_str(), nullptr};
    const DWORD secure = target.secure ? WINHTTP_FLAG_SECURE : 0;
    request.handle = InternetHandle(
        ::WinHttpOpenRequest(connection, request.post ? L"POST" : L"GET", target.path.c_str(), nullptr,
                             WINHTTP_NO_REFERER, request.acceptType.empty() ? nullptr : acceptTypes.data(),
                             (request.flags & ~DWORD{WINHTTP_FLAG_SECURE}) | secure | WINHTTP_FLAG_ESCAPE_DISABLE));
    if (!request.handle) return LastHttpError();
    request.stage = Request::Stage::opened;
    // A server that would like to know a certificate of ours learns that there is none, and goes on or does not.
    if (target.secure && !::WinHttpSetOption(request.handle.Get(), WINHTTP_OPTION_CLIENT_CERT_CONTEXT,
                                             WINHTTP_NO_CLIENT_CERT_CONTEXT, 0)) {
        return LastHttpError();
    }
    return SetOwnOptions(request.handle.Get());
}

Error OpenRequest(HttpHandle connection, std::u16string_view verb, std::u16string_view url,
                  std::u16string_view acceptTypes, std::uint32_t flags, HttpHandle& request) {
    std::shared_ptr<Connection> owner;
    if (const Error failure = AllHandles().Find(connection, owner)) return failure;
    if (verb != u"GET" && verb != u"POST") return error::invalidParameter;
    auto opened = std::make_shared<Request>();
    opened->connection = owner;
    opened->target = {(flags & httpFlagSecure) != 0, owner->host, owner->port, PathFor(url)};
    opened->post = verb == u"POST";
    opened->acceptType = WideOf(acceptTypes);
    opened->flags = flags;
    if (const Error failure = OpenAt(*opened, owner->handle.Get(), opened->target)) return failure;
    request = AllHandles().Add(std::move(opened));
    return error::success;
}

Error AddHeader(HINTERNET request, const std::wstring& header) {
    return HttpResultOf(
        ::WinHttpAddRequestHeaders(request, header.c_str(), static_cast<DWORD>(-1), WINHTTP_ADDREQ_FLAG_ADD));
}

Error AddRequestHeaders(HttpHandle request, std::u16string_view header) {
    std::shared_ptr<Request> owner;
    if (const Error failure = AllHandles().Find(request, owner)) return failure;
    const std::size_t colon = header.find(u':');
    if (colon == 0 || colon == std::u16string_view::npos ||
        header.find_first_of(std::u16string_view(u"\r\n\0", 3)) != std::u16string_view::npos) {
        return error::invalidParameter;
    }
    if (const Error failure = AddHeader(owner->handle.Get(), WideOf(header))) return failure;
    owner->headers.push_back(WideOf(header));
    return error::success;
}

/// Sets an option; the limit on connecting holds for the lookup before it, too.
Error ApplyNumber(HINTERNET request, HttpOption option, std::uint32_t value) {
    if (option == HttpOption::connectTimeout) {
        if (const Error failure = SetNumber(request, WINHTTP_OPTION_RESOLVE_TIMEOUT, value)) return failure;
    }
    return SetNumber(request, static_cast<DWORD>(option), value);
}

bool IsText(HttpOption option) { return option == HttpOption::proxyUserName || option == HttpOption::proxyPassword; }

Error SetOptionNumber(HttpHandle request, HttpOption option, std::uint32_t value) {
    std::shared_ptr<Request> owner;
    if (const Error failure = AllHandles().Find(request, owner)) return failure;
    if (IsText(option)) return error::winHttpInvalidOption;
    if (const Error failure = ApplyNumber(owner->handle.Get(), option, value)) return failure;
    owner->numbers[option] = value;
    return error::success;
}

Error QueryOption(HttpHandle request, HttpOption option, std::uint32_t& value) {
    std::shared_ptr<Request> owner;
    if (const Error failure = AllHandles().Find(request, owner)) return failure;
    if (IsText(option)) return error::winHttpInvalidOption;
    DWORD found = 0;
    DWORD size = sizeof found;
    const Error result =
        HttpResultOf(::WinHttpQueryOption(owner->handle.Get(), static_cast<DWORD>(option), &found, &size));
    value = found;
    return result;
}

Error SetOptionText(HttpHandle request, HttpOption option, std::u16string_view value) {
    std::shared_ptr<Request> owner;
    if (const Error failure = AllHandles().Find(request, owner)) return failure;
    if (!IsText(option)) return error::winHttpInvalidOption;
    if (const Error failure = SetText(owner->handle.Get(), static_cast<DWORD>(option), WideOf(value))) return failure;
    owner->texts[option] = WideOf(value);
    return error::success;
}

/// Has the proxy's credentials offered with the request; those of the options alone wait to be asked for.
Error OfferProxyCredentials(const Request& request) {
    const auto user = request.texts.find(HttpOption::proxyUserName);
    if (user == request.texts.end()) return error::success;
    const auto password = request.texts.find(HttpOption::proxyPassword);
    return HttpResultOf(::WinHttpSetCredentials(
        request.handle.Get(), WINHTTP_AUTH_TARGET_PROXY, WINHTTP_AUTH_SCHEME_BASIC, user->second.c_str(),
        password == request.texts.end() ? L"" : password->second.c_str(), nullptr));
}

/// Sends the request to where it is open.
Error Send(Request& request) {
    request.answer.reset();
    request.stage = Request::Stage::opened;
    if (const Error failure = OfferProxyCredentials(request)) return failure;
    const auto size = static_cast<DWORD>(request.bodySize);
    void* body = size == 0 ? WINHTTP_NO_REQUEST_DATA : const_cast<std::byte*>(request.body);
    if (!::WinHttpSendRequest(request.handle.Get(), WINHTTP_NO_ADDITIONAL_HEADERS, 0, body, size, size, 0)) {
        return LastHttpError();
    }
    request.stage = Request::Stage::sent;
    return error::success;
}

/// Tells a request that was opened anew what its forerunner was told.
Error TellAgain(const Request& request) {
    HINTERNET handle = request.handle.Get();
    for (const std::wstring& header : request.headers) {
        if (const Error failure = AddHeader(handle, header)) return failure;
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
Error ReturnToTarget(Request& request) {
    if (!request.redirectedConnection) return error::success;
    if (const Error failure = OpenAt(request, request.connection->handle.Get(), request.target)) return failure;
    request.redirectedConnection.Close();
    return TellAgain(request);
}

Error SendRequest(HttpHandle request, const std::byte* data, std::size_t size) {
    std::shared_ptr<Request> owner;
    if (const Error failure = AllHandles().Find(request, owner)) return failure;
    owner->body = data;
    owner->bodySize = data == nullptr ? 0 : size;
    if (owner->bodySize > MAXDWORD) return error::invalidParameter;  // WinHTTP counts in 32 bits
    if (const Error failure = ReturnToTarget(*owner)) return failure;
    return Send(*owner);
}

/// Whether a secure answer has come over the secure connection, and not from a proxy that refused to lead there.
bool CameSecurely(HINTERNET request) {
    PCCERT_CONTEXT certificate = nullptr;
    DWORD size = sizeof certificate;
    if (!::WinHttpQueryOption(request, WINHTTP_OPTION_SERVER_CERT_CONTEXT, &certificate, &size)) return false;
    ::CertFreeCertificateContext(certificate);
    return true;
}

/// Where the answer redirects to; none where it does not. A proxy that refuses a tunnel may not say where to go
/// instead.
std::optional<HttpTarget> NextTarget(const Request& request, const HttpTarget& present) {
    HINTERNET handle = request.handle.Get();
    DWORD status = 0;
    std::wstring location;
    if (QueryStatus(handle, status) != error::success || !IsFollowedRedirect(status, request.post)) return std::nullopt;
    if (QueryHeaderText(handle, WINHTTP_QUERY_LOCATION, location) != error::success) return std::nullopt;
    if (present.secure && !CameSecurely(handle)) return std::nullopt;
    return RedirectedTarget(present, location);
}

Error FollowTo(Request& request, const HttpTarget& target) {
    InternetHandle connection(
        ::WinHttpConnect(request.connection->session->handle.Get(), target.host.c_str(), target.port, 0));
    if (!connection) return LastHttpError();
    if (const Error failure = OpenAt(request, connection.Get(), target)) return failure;
    request.redirectedConnection = std::move(connection);
    if (const Error failure = TellAgain(request)) return failure;
    return Send(request);
}

Error ReceiveAnswer(Request& request) {
    HttpTarget target = request.target;
    for (int redirect = 0;; ++redirect) {
        if (!::WinHttpReceiveResponse(request.handle.Get(), nullptr)) return LastHttpError();
        auto next = NextTarget(request, target);
        if (!next) return error::success;
        if (redirect == maxRedirects) return error::winHttpRedirectFailed;
        target = *std::move(next);
        if (const Error failure = FollowTo(request, target)) return failure;
    }
}

Error ReceiveResponse(HttpHandle request) {
    std::shared_ptr<Request> owner;
    if (const Error failure = AllHandles().Find(request, owner)) return failure;
    if (owner->stage != Request::Stage::sent) return error::winHttpIncorrectHandleState;
    const Error result = ReceiveAnswer(*owner);
    owner->stage = result == error::success ? Request::Stage::answered : Request::Stage::opened;
    if (result == error::success) owner->answer.emplace(owner->handle.Get());
    return result;
}

/// The answer of a request whose headers have come.
Error FindAnswer(HttpHandle request, std::shared_ptr<Request>& owner) {
    if (const Error failure = AllHandles().Find(request, owner)) return failure;
    return owner->answer ? error::success : error::winHttpIncorrectHandleState;
}

Error QueryHeadersText(HttpHandle request, HttpHeaderQuery query, std::u16string& text) {
    std::shared_ptr<Request> owner;
    if (const Error failure = FindAnswer(request, owner)) return failure;
    if (query != HttpHeaderQuery::rawHeadersCrlf) return error::invalidParameter;
    std::wstring headers;
    const Error result = QueryHeaderText(owner->handle.Get(), WINHTTP_QUERY_RAW_HEADERS_CRLF, headers);
    text = TextOf(headers);
    return result;
}

Error QueryHeadersNumber(HttpHandle request, HttpHeaderQuery query, std::uint32_t& number) {
    std::shared_ptr<Request> owner;
    if (const Error failure = FindAnswer(request, owner)) return failure;
    if (query == HttpHeaderQuery::statusCodeNumber) {
        DWORD status = 0;
        const Error result = QueryStatus(owner->handle.Get(), status);
        number = status;
        return result;
    }
    if (query != HttpHeaderQuery::contentLengthNumber) return error::invalidParameter;
    std::uint64_t length = 0;
    if (const Error failure = QueryContentLength(owner->handle.Get(), length)) return failure;
    number = static_cast<std::uint32_t>(length);
    return length > UINT32_MAX ? error::winHttpInvalidServerResponse : error::success;
}

Error QueryDataAvailable(HttpHandle request, std::size_t& available) {
    std::shared_ptr<Request> owner;
    if (const Error failure = FindAnswer(request, owner)) return failure;
    return owner->answer->Wait(available);
}

Error ReadData(HttpHandle request, std::byte* buffer, std::size_t size, std::size_t& read) {
    read = 0;
    std::shared_ptr<Request> owner;
    if (const Error failure = FindAnswer(request, owner)) return failure;
    return owner->answer->Read(buffer, size, read);
}

/// What other records were opened from is closed for the system with the last of those.
Error CloseHandle(HttpHandle handle) {
    Handles::Node node;
    if (const Error failure = AllHandles().Take(handle, node)) return failure;
    return std::visit(
        [](const auto& record) { return record.use_count() == 1 ? record->handle.Close() : error::success; }, node);
}

}  // namespace

HttpOperations WindowsHttp() {
    return {
        .WinHttpOpen = Guarded(Open),
        .WinHttpConnect = Guarded(Connect),
        .WinHttpOpenRequest = Guarded(OpenRequest),
        .WinHttpAddRequestHeaders = Guarded(AddRequestHeaders),
        .WinHttpSetOptionNumber = Guarded(SetOptionNumber),
        .WinHttpSetOptionText = Guarded(SetOptionText),
        .WinHttpQueryOption = Guarded(QueryOption),
        .WinHttpSendRequest = Guarded(SendRequest),
        .WinHttpReceiveResponse = Guarded(ReceiveResponse),
        .WinHttpQueryHeadersText = Guarded(QueryHeadersText),
        .WinHttpQueryHeadersNumber = Guarded(QueryHeadersNumber),
        .WinHttpQueryDataAvailable = Guarded(QueryDataAvailable),
        .WinHttpReadData = Guarded(ReadData),
        .WinHttpCloseHandle = Guarded(CloseHandle),
    };
}

void InstallHttp() { CurrentOperations<HttpOperations>() = WindowsHttp(); }

}  // namespace platform

// The WinHTTP operations on libcurl. A request keeps what it was told until it is sent; each sending starts a transfer
// of its own (platform/linux/http_curl_transfer.h), so a request can be sent again after a failure.
#include "platform/http.h"

#include <charconv>
#include <chrono>
#include <memory>
#include <utility>
#include <variant>
#include <vector>

#include "platform/backend.h"
#include "platform/http_handles.h"
#include "platform/http_rules.h"
#include "platform/linux/http_curl_transfer.h"
#include "platform/linux/http_target.h"
#include "platform/linux/linux.h"
#include "platform/utf.h"

namespace platform {

namespace {

struct Session {
    std::string userAgent;
    std::string proxyList;  // empty for none
    std::string bypassList;
};

struct Connection {
    std::shared_ptr<const Session> session;
    std::u16string server;
    std::uint16_t port = 0;
};

struct Request {
    std::shared_ptr<const Connection> connection;
    HttpTarget target;
    bool post = false;
    std::vector<std::string> headers;
    std::uint32_t connectTimeout = 60000;  // milliseconds, like the two below
    std::uint32_t sendTimeout = 30000;
    std::uint32_t receiveTimeout = 30000;
    std::uint32_t securityFlags = 0;
    std::optional<std::string> proxyUser;
    std::optional<std::string> proxyPassword;

    const std::byte* body = nullptr;  // the caller's
    std::size_t bodySize = 0;
    std::unique_ptr<CurlTransfer> transfer;  // of the last sending; none before it and after a failure
};

using Handles = HttpHandles<Session, Connection, Request>;

/// Never freed: a detached thread may be in a transaction while the process ends.
Handles& AllHandles() {
    static auto* const handles = new Handles;
    return *handles;
}

/// libcurl's own state, made by the first session. Its initialisation brings OpenSSL's along.
bool CurlIsReady() {
    static const bool ready = curl_global_init(CURL_GLOBAL_DEFAULT) == CURLE_OK;
    return ready;
}

Error Open(std::u16string_view userAgent, HttpProxyAccess access, const std::optional<std::u16string>& proxyName,
           const std::optional<std::u16string>& proxyBypass, HttpHandle& session) {
    auto opened = std::make_shared<Session>();
    opened->userAgent = Utf8FromWide(userAgent);
    if (access == HttpProxyAccess::namedProxy) {
        opened->proxyList = Utf8FromWide(proxyName.value_or(u""));
        opened->bypassList = Utf8FromWide(proxyBypass.value_or(u""));
        if (!NamesProxy(proxyName.value_or(u""))) return error::invalidParameter;
    }
    if (!CurlIsReady()) return error::winHttpInternalError;
    session = AllHandles().Add(std::move(opened));
    return error::success;
}

Error Connect(HttpHandle session, std::u16string_view server, std::uint16_t port, HttpHandle& connection) {
    std::shared_ptr<Session> owner;
    if (const Error failure = AllHandles().Find(session, owner)) return failure;
    if (!IsHostName(server)) return error::winHttpInvalidUrl;
    auto named = std::make_shared<Connection>();
    named->session = std::move(owner);
    named->server = server;
    named->port = port;
    connection = AllHandles().Add(std::move(named));
    return error::success;
}

Error OpenRequest(HttpHandle connection, std::u16string_view verb, std::u16string_view url,
                  std::u16string_view acceptTypes, std::uint32_t flags, HttpHandle& request) {
    std::shared_ptr<Connection> owner;
    if (const Error failure = AllHandles().Find(connection, owner)) return failure;
    if (verb != u"GET" && verb != u"POST") return error::invalidParameter;
    auto target = MakeHttpTarget((flags & httpFlagSecure) != 0, owner->server, owner->port, url);
    if (!target) return error::winHttpInvalidUrl;
    auto opened = std::make_shared<Request>();
    opened->connection = std::move(owner);
    opened->target = *std::move(target);
    opened->post = verb == u"POST";
    // libcurl would put headers of its own here: a line without a value keeps such a header out.
    opened->headers = {acceptTypes.empty() ? "Accept:" : "Accept: " + Utf8FromWide(acceptTypes),
                       "Content-Type:", "Expect:"};
    if ((flags & httpFlagBypassProxyCache) != 0) {
        opened->headers.insert(opened->headers.end(), {"Cache-Control: no-cache", "Pragma: no-cache"});
    }
    request = AllHandles().Add(std::move(opened));
    return error::success;
}

Error AddRequestHeaders(HttpHandle request, std::u16string_view header) {
    std::shared_ptr<Request> owner;
    if (const Error failure = AllHandles().Find(request, owner)) return failure;
    const std::size_t colon = header.find(u':');
    if (colon == 0 || colon == std::u16string_view::npos ||
        header.find_first_of(u"\r\n") != std::u16string_view::npos) {
        return error::invalidParameter;
    }
    owner->headers.push_back(Utf8FromWide(header));
    return error::success;
}

/// The place of a numeric option in a request, or null for an option of another kind.
std::uint32_t* NumberOption(Request& request, HttpOption option) {
    switch (option) {
        case HttpOption::connectTimeout:
            return &request.connectTimeout;
        case HttpOption::sendTimeout:
            return &request.sendTimeout;
        case HttpOption::receiveTimeout:
            return &request.receiveTimeout;
        case HttpOption::securityFlags:
            return &request.securityFlags;
        default:
            return nullptr;
    }
}

Error SetOptionNumber(HttpHandle request, HttpOption option, std::uint32_t value) {
    std::shared_ptr<Request> owner;
    if (const Error failure = AllHandles().Find(request, owner)) return failure;
    std::uint32_t* place = NumberOption(*owner, option);
    if (place == nullptr) return error::winHttpInvalidOption;
    *place = value;
    return error::success;
}

Error QueryOption(HttpHandle request, HttpOption option, std::uint32_t& value) {
    std::shared_ptr<Request> owner;
    if (const Error failure = AllHandles().Find(request, owner)) return failure;
    const std::uint32_t* place = NumberOption(*owner, option);
    if (place == nullptr) return error::winHttpInvalidOption;
    value = *place;
    return error::success;
}

Error SetOptionText(HttpHandle request, HttpOption option, std::u16string_view value) {
    std::shared_ptr<Request> owner;
    if (const Error failure = AllHandles().Find(request, owner)) return failure;
    if (option == HttpOption::proxyUserName) {
        owner->proxyUser = Utf8FromWide(value);
    } else if (option == HttpOption::proxyPassword) {
        owner->proxyPassword = Utf8FromWide(value);
    } else {
        return error::winHttpInvalidOption;
    }
    return error::success;
}

/// Sends the request to a target: its own, or where a redirect has led.
Error SendTo(Request& request, const HttpTarget& target) {
    const Session& session = *request.connection->session;
    const bool direct = session.proxyList.empty() || IsBypassed(session.bypassList, target);
    CurlTransferSettings settings{
        .url = target.url,
        .post = request.post,
        .body = request.body,
        .bodySize = request.bodySize,
        .userAgent = session.userAgent,
        .headers = request.headers,
        .proxy = direct ? std::string() : ProxyFromList(session.proxyList, target),
        .proxyUser = request.proxyUser,
        .proxyPassword = request.proxyPassword,
        .securityFlags = request.securityFlags,
        .connectTimeout = std::chrono::milliseconds(request.connectTimeout),
        .sendTimeout = std::chrono::milliseconds(request.sendTimeout),
        .receiveTimeout = std::chrono::milliseconds(request.receiveTimeout),
    };
    request.transfer = std::make_unique<CurlTransfer>(settings);
    const Error result = request.transfer->Send();
    if (result != error::success) request.transfer.reset();
    return result;
}

Error SendRequest(HttpHandle request, const std::byte* data, std::size_t size) {
    std::shared_ptr<Request> owner;
    if (const Error failure = AllHandles().Find(request, owner)) return failure;
    owner->body = data;
    owner->bodySize = data == nullptr ? 0 : size;
    return SendTo(*owner, owner->target);
}

/// Where the answer redirects to; none where it does not, or where going there would leave the secure connection. Nor
/// may a proxy that refuses a tunnel say where to go instead.
std::optional<HttpTarget> NextTarget(const CurlTransfer& answer, const HttpTarget& present, bool post) {
    const auto location = answer.headerValue("Location");
    if (!IsFollowedRedirect(answer.status(), post) || !location || answer.tunnelRefused()) return std::nullopt;
    auto next = RedirectedTarget(present, *location);
    return next && (next->secure || !present.secure) ? next : std::nullopt;
}

Error ReceiveAnswer(Request& request) {
    HttpTarget target = request.target;
    for (int redirect = 0;; ++redirect) {
        if (const Error failure = request.transfer->ReceiveHeaders()) return failure;
        auto next = NextTarget(*request.transfer, target, request.post);
        if (!next) return error::success;
        if (redirect == maxRedirects) return error::winHttpRedirectFailed;
        target = *std::move(next);
        if (const Error failure = SendTo(request, target)) return failure;
    }
}

Error ReceiveResponse(HttpHandle request) {
    std::shared_ptr<Request> owner;
    if (const Error failure = AllHandles().Find(request, owner)) return failure;
    if (!owner->transfer) return error::winHttpIncorrectHandleState;
    const Error result = ReceiveAnswer(*owner);
    if (result != error::success) owner->transfer.reset();
    return result;
}

/// The answer of a request whose headers have come.
Error FindAnswer(HttpHandle request, std::shared_ptr<Request>& owner) {
    if (const Error failure = AllHandles().Find(request, owner)) return failure;
    return owner->transfer && owner->transfer->hasHeaders() ? error::success : error::winHttpIncorrectHandleState;
}

Error QueryHeadersText(HttpHandle request, HttpHeaderQuery query, std::u16string& text) {
    std::shared_ptr<Request> owner;
    if (const Error failure = FindAnswer(request, owner)) return failure;
    if (query != HttpHeaderQuery::rawHeadersCrlf) return error::invalidParameter;
    text = WideFromUtf8(owner->transfer->rawHeaders());
    return error::success;
}

Error QueryHeadersNumber(HttpHandle request, HttpHeaderQuery query, std::uint32_t& number) {
    std::shared_ptr<Request> owner;
    if (const Error failure = FindAnswer(request, owner)) return failure;
    if (query == HttpHeaderQuery::statusCodeNumber) {
        number = owner->transfer->status();
        return error::success;
    }
    if (query != HttpHeaderQuery::contentLengthNumber) return error::invalidParameter;
    const auto value = owner->transfer->headerValue("Content-Length");
    if (!value) return error::winHttpHeaderNotFound;
    const auto parsed = std::from_chars(value->data(), value->data() + value->size(), number);
    return parsed.ec == std::errc() ? error::success : error::winHttpInvalidServerResponse;
}

Error QueryDataAvailable(HttpHandle request, std::size_t& available) {
    std::shared_ptr<Request> owner;
    if (const Error failure = FindAnswer(request, owner)) return failure;
    return owner->transfer->WaitForBody(available);
}

/// Fills the buffer unless the body ends before. A failure after some bytes shows at the next call.
Error ReadData(HttpHandle request, std::byte* buffer, std::size_t size, std::size_t& read) {
    read = 0;
    std::shared_ptr<Request> owner;
    if (const Error failure = FindAnswer(request, owner)) return failure;
    while (read < size) {
        std::size_t available = 0;
        const Error failure = owner->transfer->WaitForBody(available);
        if (failure != error::success && read == 0) return failure;
        if (available == 0) break;
        read += owner->transfer->Take(buffer + read, size - read);
    }
    return error::success;
}

Error CloseHandle(HttpHandle handle) {
    Handles::Node node;
    if (const Error failure = AllHandles().Take(handle, node)) return failure;
    if (std::holds_alternative<std::shared_ptr<Session>>(node)) TrimResidentLibraryPages();
    return error::success;
}

}  // namespace

HttpOperations LinuxHttp() {
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

void InstallHttp() { CurrentOperations<HttpOperations>() = LinuxHttp(); }

}  // namespace platform

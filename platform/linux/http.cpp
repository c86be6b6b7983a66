// The WinHTTP operations on libcurl. A request keeps what it was told until it is sent; each sending starts a transfer
// of its own (platform/linux/http_curl_transfer.h), so a request can be sent again after a failure.
#include "platform/http.h"

#include <charconv>
#include <chrono>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "platform/backend.h"
#include "platform/http_frame.h"
#include "platform/http_trust.h"
#include "platform/linux/http_certificates.h"
#include "platform/linux/http_curl_transfer.h"
#include "platform/linux/http_target.h"
#include "platform/linux/linux.h"
#include "platform/memory.h"
#include "platform/utf.h"

namespace platform {

namespace {

/// The backend; platform/http_frame.h says what each routine is for.
struct CurlHttp {
    struct Session {
        std::string userAgent;
        std::string proxyList;  // may be empty
        std::string bypassList;
    };

    struct Connection {
        std::shared_ptr<Session> session;
        std::u16string server;
        std::uint16_t port = 0;
    };

    struct Request : HttpSending {
        std::shared_ptr<Connection> connection;
        HttpTarget target;
        std::vector<std::string> headers;
        std::uint32_t connectTimeout = 60000;  // milliseconds, like the two below
        std::uint32_t sendTimeout = 30000;
        std::uint32_t receiveTimeout = 30000;
        std::uint32_t securityFlags = 0;
        std::optional<std::string> proxyUser;
        std::optional<std::string> proxyPassword;
        std::unique_ptr<CurlTransfer> transfer;  // of the last sending; null before it and after a failure
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
    static Error Send(Request& request) { return Resend(request, request.target); }
    static Error Resend(Request& request, const HttpTarget& target);
    static Error Receive(Request& request) { return request.transfer->ReceiveHeaders(); }
    static void EndReceive(Request& request, Error result);
    static std::optional<HttpTarget> Redirection(const Request& request, const HttpTarget& present);
    static Error RawHeaders(const Request& request, std::u16string& text);
    static Error Status(const Request& request, std::uint32_t& status);
    static Error ContentLength(const Request& request, std::uint64_t& length);
    static Error WaitForBody(Request& request, std::size_t& available);
    static std::size_t Take(Request& request, std::byte* buffer, std::size_t size);
    static Error ReadCertificate(std::string_view der, HttpCertificate& certificate) {
        return platform::ReadCertificate(der, certificate);
    }
    static Error CountCertificates(std::string_view pem, std::size_t& count) {
        return platform::CountCertificates(pem, count);
    }
    static Error Close(const std::shared_ptr<Session>&);
    static Error Close(const std::shared_ptr<Connection>&) { return error::success; }
    static Error Close(const std::shared_ptr<Request>&) { return error::success; }
};

/// libcurl's own state, made by the first session. Its initialisation brings OpenSSL's along.
bool CurlIsReady() {
    static const bool ready = curl_global_init(CURL_GLOBAL_DEFAULT) == CURLE_OK;
    return ready;
}

Error CurlHttp::Open(Session& session, std::u16string_view userAgent, std::u16string_view proxyList,
                     std::u16string_view bypassList) {
    session = {Utf8FromWide(userAgent), Utf8FromWide(proxyList), Utf8FromWide(bypassList)};
    return CurlIsReady() ? error::success : error::winHttpInternalError;
}

Error CurlHttp::Connect(Connection& connection, std::u16string_view server, std::uint16_t port) {
    connection.server = server;
    connection.port = port;
    return error::success;
}

Error CurlHttp::OpenRequest(Request& request, std::u16string_view url, std::u16string_view acceptTypes,
                            std::uint32_t flags) {
    const Connection& connection = *request.connection;
    auto target = MakeHttpTarget((flags & httpFlagSecure) != 0, connection.server, connection.port, url);
    if (!target) return error::winHttpInvalidUrl;
    request.target = *std::move(target);
    // libcurl would put headers of its own here: a line without a value keeps such a header out.
    request.headers = {acceptTypes.empty() ? "Accept:" : "Accept: " + Utf8FromWide(acceptTypes),
                       "Content-Type:", "Expect:"};
    if ((flags & httpFlagBypassProxyCache) != 0) {
        request.headers.insert(request.headers.end(), {"Cache-Control: no-cache", "Pragma: no-cache"});
    }
    return error::success;
}

Error CurlHttp::AddHeader(Request& request, std::u16string_view header) {
    request.headers.push_back(Utf8FromWide(header));
    return error::success;
}

/// The place of a numeric option in a request, or null for an option of another kind.
std::uint32_t* NumberOption(CurlHttp::Request& request, HttpOption option) {
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

Error CurlHttp::SetNumber(Request& request, HttpOption option, std::uint32_t value) {
    std::uint32_t* place = NumberOption(request, option);
    if (place == nullptr) return error::winHttpInvalidOption;
    *place = value;
    return error::success;
}

Error CurlHttp::QueryNumber(Request& request, HttpOption option, std::uint32_t& value) {
    const std::uint32_t* place = NumberOption(request, option);
    if (place == nullptr) return error::winHttpInvalidOption;
    value = *place;
    return error::success;
}

Error CurlHttp::SetText(Request& request, HttpOption option, std::u16string_view value) {
    (option == HttpOption::proxyUserName ? request.proxyUser : request.proxyPassword) = Utf8FromWide(value);
    return error::success;
}

Error CurlHttp::Resend(Request& request, const HttpTarget& target) {
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
        .trust = &request.trust,
        .host = target.host,
        .server = ServerText(target.host, target.port),
        .connectTimeout = std::chrono::milliseconds(request.connectTimeout),
        .sendTimeout = std::chrono::milliseconds(request.sendTimeout),
        .receiveTimeout = std::chrono::milliseconds(request.receiveTimeout),
    };
    request.transfer = std::make_unique<CurlTransfer>(settings);
    const Error result = request.transfer->Send();
    if (const auto& presented = request.transfer->presentedCertificate()) request.presented.push_back(*presented);
    if (result != error::success) EndReceive(request, result);
    return result;
}

/// A request that brought no answer may be sent again; its connection is closed before that.
void CurlHttp::EndReceive(Request& request, Error result) {
    if (result == error::success || !request.transfer) return;
    request.failureText = request.transfer->FailureText();
    request.transfer.reset();
}

/// A proxy that refuses a tunnel may not say where to go instead.
std::optional<HttpTarget> CurlHttp::Redirection(const Request& request, const HttpTarget& present) {
    const auto location = request.transfer->headerValue("Location");
    return location && !request.transfer->tunnelRefused() ? RedirectedTarget(present, *location) : std::nullopt;
}

Error CurlHttp::RawHeaders(const Request& request, std::u16string& text) {
    text = WideFromUtf8(request.transfer->rawHeaders());
    return error::success;
}

Error CurlHttp::Status(const Request& request, std::uint32_t& status) {
    status = request.transfer->status();
    return error::success;
}

Error CurlHttp::ContentLength(const Request& request, std::uint64_t& length) {
    const auto value = request.transfer->headerValue("Content-Length");
    if (!value) return error::winHttpHeaderNotFound;
    const auto parsed = std::from_chars(value->data(), value->data() + value->size(), length);
    return parsed.ec == std::errc() ? error::success : error::winHttpInvalidServerResponse;
}

Error CurlHttp::WaitForBody(Request& request, std::size_t& available) {
    return request.transfer->WaitForBody(available);
}

std::size_t CurlHttp::Take(Request& request, std::byte* buffer, std::size_t size) {
    return request.transfer->Take(buffer, size);
}

/// Each transaction has a session of its own: with it goes what the libraries hold of pages that were read.
Error CurlHttp::Close(const std::shared_ptr<Session>&) {
    TrimResidentLibraryPages();
    return error::success;
}

}  // namespace

HttpOperations LinuxHttp() { return HttpFrame<CurlHttp>::Operations(); }

void InstallHttp() { CurrentOperations<HttpOperations>() = LinuxHttp(); }

}  // namespace platform

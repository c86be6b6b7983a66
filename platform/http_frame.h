// The list of HTTP operations over the records of a backend: all that does not depend on the system. Here handles are
// turned into records, arguments and the order of calls are checked, and redirects are followed.
//
// A backend is a class of static members, which never see a handle:
//
//   Session, Connection, Request   its records. A Connection has a shared `session`; a Request is an HttpSending, and
//                                  has a shared `connection` and the `target` that it was opened for. A target
//                                  is any record with a truth value `secure`
//   Open, Connect, OpenRequest     fill a record
//   AddHeader, SetText, SetNumber, QueryNumber
//   Send                           sends a request to its target, Resend to where a redirect leads
//   Receive                        waits for the headers of an answer; EndReceive is told how that ended
//   Redirection                    where an answer leads, if anywhere
//   RawHeaders, Status, ContentLength, WaitForBody, Take    of an answer
//   ReadCertificate, CountCertificates   of a text; no record
//   Close                          a record's handle is closed; what was opened from it may still hold it
//
// Send and Resend do what HttpSending::trust asks, and add to `presented`; they and EndReceive set `failureText`.
//
// Redirection gives an optional target, Take a number of bytes, EndReceive nothing, all others an Error.
//
// Private to platform/; callable from any thread.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "platform/guarded.h"
#include "platform/http.h"
#include "platform/http_handles.h"
#include "platform/http_rules.h"
#include "platform/http_trust.h"

namespace platform {

/// What is sent with a request, and how far that has come.
struct HttpSending {
    bool post = false;
    const std::byte* body = nullptr;  // the caller's
    std::size_t bodySize = 0;
    enum class Stage { opened, sent, answered } stage = Stage::opened;

    bool followsRedirects = true;
    HttpServerTrust trust;
    std::vector<HttpPresentedCertificate> presented;  // by servers, since the last sending
    std::string failureText;                          // of the last sending or receiving
};

template <class Backend>
class HttpFrame {
  public:
    static HttpOperations Operations() {
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
            .SetServerTrust = Guarded(SetServerTrust),
            .QueryPresentedCertificates = Guarded(QueryPresentedCertificates),
            .QueryFailureText = Guarded(QueryFailureText),
            .ReadCertificate = Guarded(Backend::ReadCertificate),
            .CountCertificates = Guarded(Backend::CountCertificates),
        };
    }

  private:
    using Session = typename Backend::Session;
    using Connection = typename Backend::Connection;
    using Request = typename Backend::Request;
    using Handles = HttpHandles<Session, Connection, Request>;
    using Stage = HttpSending::Stage;

    /// Never freed: a detached thread may be in a transaction while the process ends.
    static Handles& AllHandles() {
        static auto* const handles = new Handles;
        return *handles;
    }

    static Error Open(std::u16string_view userAgent, HttpProxyAccess access,
                      const std::optional<std::u16string>& proxyName, const std::optional<std::u16string>& proxyBypass,
                      HttpHandle& session) {
        const bool proxied = access == HttpProxyAccess::namedProxy;
        const std::u16string name = proxied ? proxyName.value_or(u"") : u"";
        const std::u16string bypass = proxied ? proxyBypass.value_or(u"") : u"";
        if (proxied && !NamesProxy(name)) return error::invalidParameter;
        auto opened = std::make_shared<Session>();
        if (const Error failure = Backend::Open(*opened, userAgent, name, bypass)) return failure;
        session = AllHandles().Add(std::move(opened));
        return error::success;
    }

    static Error Connect(HttpHandle session, std::u16string_view server, std::uint16_t port, HttpHandle& connection) {
        auto named = std::make_shared<Connection>();
        if (const Error failure = AllHandles().Find(session, named->session)) return failure;
        if (!IsHostName(server)) return error::winHttpInvalidUrl;
        if (const Error failure = Backend::Connect(*named, server, port)) return failure;
        connection = AllHandles().Add(std::move(named));
        return error::success;
    }

    static Error OpenRequest(HttpHandle connection, std::u16string_view verb, std::u16string_view url,
                             std::u16string_view acceptTypes, std::uint32_t flags, HttpHandle& request) {
        auto opened = std::make_shared<Request>();
        if (const Error failure = AllHandles().Find(connection, opened->connection)) return failure;
        if (verb != u"GET" && verb != u"POST") return error::invalidParameter;
        opened->post = verb == u"POST";
        if (const Error failure = Backend::OpenRequest(*opened, url, acceptTypes, flags)) return failure;
        request = AllHandles().Add(std::move(opened));
        return error::success;
    }

    static Error AddRequestHeaders(HttpHandle request, std::u16string_view header) {
        std::shared_ptr<Request> owner;
        if (const Error failure = AllHandles().Find(request, owner)) return failure;
        return IsHeaderLine(header) ? Backend::AddHeader(*owner, header) : error::invalidParameter;
    }

    static bool IsText(HttpOption option) {
        return option == HttpOption::proxyUserName || option == HttpOption::proxyPassword;
    }

    static Error SetOptionNumber(HttpHandle request, HttpOption option, std::uint32_t value) {
        std::shared_ptr<Request> owner;
        if (const Error failure = AllHandles().Find(request, owner)) return failure;
        if (option == HttpOption::redirectPolicy) {
            owner->followsRedirects = value != redirectNever;
            return error::success;
        }
        return IsText(option) ? error::winHttpInvalidOption : Backend::SetNumber(*owner, option, value);
    }

    static Error QueryOption(HttpHandle request, HttpOption option, std::uint32_t& value) {
        std::shared_ptr<Request> owner;
        if (const Error failure = AllHandles().Find(request, owner)) return failure;
        return IsText(option) ? error::winHttpInvalidOption : Backend::QueryNumber(*owner, option, value);
    }

    static Error SetOptionText(HttpHandle request, HttpOption option, std::u16string_view value) {
        std::shared_ptr<Request> owner;
        if (const Error failure = AllHandles().Find(request, owner)) return failure;
        return IsText(option) ? Backend::SetText(*owner, option, value) : error::winHttpInvalidOption;
    }

    static Error SendRequest(HttpHandle request, const std::byte* data, std::size_t size) {
        std::shared_ptr<Request> owner;
        if (const Error failure = AllHandles().Find(request, owner)) return failure;
        owner->body = data;
        owner->bodySize = data == nullptr ? 0 : size;
        owner->stage = Stage::opened;
        owner->presented.clear();
        owner->failureText.clear();
        if (AsksForCertificate(owner->trust) && !owner->target.secure) return error::winHttpSecureFailure;
        const Error result = Backend::Send(*owner);
        if (result == error::success) owner->stage = Stage::sent;
        return result;
    }

    /// Where an answer leads; null when it is the answer itself, as a redirect out of a secure connection is.
    template <class Target>
    static std::optional<Target> NextTarget(Request& request, const Target& present) {
        std::uint32_t status = 0;
        if (!request.followsRedirects) return std::nullopt;
        if (Backend::Status(request, status) != error::success || !IsFollowedRedirect(status, request.post))
            return std::nullopt;
        auto next = Backend::Redirection(request, present);
        return next && (next->secure || !present.secure) ? next : std::nullopt;
    }

    static Error ReceiveAnswer(Request& request) {
        auto target = request.target;
        for (int redirect = 0;; ++redirect) {
            if (const Error failure = Backend::Receive(request)) return failure;
            auto next = NextTarget(request, target);
            if (!next) return error::success;
            if (redirect == maxRedirects) return error::winHttpRedirectFailed;
            target = *std::move(next);
            if (const Error failure = Backend::Resend(request, target)) return failure;
        }
    }

    static Error ReceiveResponse(HttpHandle request) {
        std::shared_ptr<Request> owner;
        if (const Error failure = AllHandles().Find(request, owner)) return failure;
        if (owner->stage != Stage::sent) return error::winHttpIncorrectHandleState;
        owner->stage = Stage::opened;
        const Error result = ReceiveAnswer(*owner);
        Backend::EndReceive(*owner, result);  // may throw: there is no answer then
        if (result == error::success) owner->stage = Stage::answered;
        return result;
    }

    /// A request whose headers have come.
    static Error FindAnswer(HttpHandle request, std::shared_ptr<Request>& owner) {
        if (const Error failure = AllHandles().Find(request, owner)) return failure;
        return owner->stage == Stage::answered ? error::success : error::winHttpIncorrectHandleState;
    }

    static Error QueryHeadersText(HttpHandle request, HttpHeaderQuery query, std::u16string& text) {
        std::shared_ptr<Request> owner;
        if (const Error failure = FindAnswer(request, owner)) return failure;
        return query == HttpHeaderQuery::rawHeadersCrlf ? Backend::RawHeaders(*owner, text) : error::invalidParameter;
    }

    static Error QueryHeadersNumber(HttpHandle request, HttpHeaderQuery query, std::uint32_t& number) {
        std::shared_ptr<Request> owner;
        if (const Error failure = FindAnswer(request, owner)) return failure;
        if (query == HttpHeaderQuery::statusCodeNumber) return Backend::Status(*owner, number);
        if (query != HttpHeaderQuery::contentLengthNumber) return error::invalidParameter;
        std::uint64_t length = 0;
        if (const Error failure = Backend::ContentLength(*owner, length)) return failure;
        if (length > UINT32_MAX) return error::winHttpInvalidServerResponse;
        number = static_cast<std::uint32_t>(length);
        return error::success;
    }

    static Error QueryDataAvailable(HttpHandle request, std::size_t& available) {
        std::shared_ptr<Request> owner;
        if (const Error failure = FindAnswer(request, owner)) return failure;
        return Backend::WaitForBody(*owner, available);
    }

    /// Fills the buffer unless the body ends before. A failure after some bytes shows at the next call. Only what is
    /// there is taken: WinHTTP would wait for the rest, and keep what has come when it fails.
    static Error ReadData(HttpHandle request, std::byte* buffer, std::size_t size, std::size_t& read) {
        read = 0;
        std::shared_ptr<Request> owner;
        if (const Error failure = FindAnswer(request, owner)) return failure;
        while (read < size) {
            std::size_t available = 0;
            const Error failure = Backend::WaitForBody(*owner, available);
            if (failure != error::success && read == 0) return failure;
            if (available == 0) break;
            read += Backend::Take(*owner, buffer + read, std::min(size - read, available));
        }
        return error::success;
    }

    static Error SetServerTrust(HttpHandle request, const HttpServerTrust& trust) {
        std::shared_ptr<Request> owner;
        if (const Error failure = AllHandles().Find(request, owner)) return failure;
        owner->trust = trust;
        return error::success;
    }

    static Error QueryPresentedCertificates(HttpHandle request, std::vector<HttpPresentedCertificate>& certificates) {
        std::shared_ptr<Request> owner;
        if (const Error failure = AllHandles().Find(request, owner)) return failure;
        certificates = owner->presented;
        return error::success;
    }

    static Error QueryFailureText(HttpHandle request, std::string& text) {
        std::shared_ptr<Request> owner;
        if (const Error failure = AllHandles().Find(request, owner)) return failure;
        text = owner->failureText;
        return error::success;
    }

    static Error CloseHandle(HttpHandle handle) {
        typename Handles::Node node;
        if (const Error failure = AllHandles().Take(handle, node)) return failure;
        return std::visit([](const auto& record) { return Backend::Close(record); }, node);
    }
};

}  // namespace platform

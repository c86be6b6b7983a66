#include "platform/windows/http_body.h"

#include <algorithm>
#include <chrono>

namespace platform {

namespace {

using Clock = std::chrono::steady_clock;

constexpr DWORD statusNoContent = 204;
constexpr DWORD statusNotModified = 304;

/// The length that the body has; null where no header tells it: the body comes in chunks, which WinHTTP takes apart
/// itself, or lasts until the server hangs up.
std::optional<std::uint64_t> DeclaredLength(HINTERNET request) {
    DWORD status = 0;
    if (QueryStatus(request, status) == error::success && (status == statusNoContent || status == statusNotModified)) {
        return 0;
    }
    std::wstring encoding;
    std::uint64_t length = 0;
    if (QueryHeaderText(request, WINHTTP_QUERY_TRANSFER_ENCODING, encoding) == error::success) return std::nullopt;
    if (QueryContentLength(request, length) != error::success) return std::nullopt;
    return length;
}

}  // namespace

HttpBody::HttpBody(HINTERNET request) : request_(request), declared_(DeclaredLength(request)), pace_(Clock::now()) {}

/// How the body has ended, now that WinHTTP has no more of it.
Error HttpBody::End() const {
    return declared_ && received_ < *declared_ ? error::winHttpConnectionError : error::success;
}

Error HttpBody::Ask(DWORD& available) const {
    if (Clock::now() > pace_.end()) return error::winHttpTimeout;
    return HttpResultOf(::WinHttpQueryDataAvailable(request_, &available));
}

Error HttpBody::Wait(std::size_t& available) {
    DWORD count = 0;
    if (!end_) {
        const Error failure = Ask(count);
        if (failure != error::success || count == 0) end_ = failure != error::success ? failure : End();
    }
    available = end_ ? 0 : count;
    return end_.value_or(error::success);
}

std::size_t HttpBody::Take(std::byte* buffer, std::size_t size) {
    const auto most = static_cast<DWORD>(std::min<std::size_t>(size, MAXDWORD));
    DWORD taken = 0;
    if (!::WinHttpReadData(request_, buffer, most, &taken)) {
        end_ = LastHttpError();
        return 0;
    }
    received_ += taken;
    pace_.Count(taken, Clock::now());
    if (taken == 0) end_ = End();
    return taken;
}

}  // namespace platform

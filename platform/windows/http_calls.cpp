#include "platform/windows/http_calls.h"

#include <cerrno>
#include <cwchar>

namespace platform {

Error LastHttpError() {
    const Error failure = LastError();
    if (failure == WSAETIMEDOUT) return error::winHttpTimeout;
    const bool ofSocket = failure >= WSABASEERR && failure < error::hostNotFound;
    return ofSocket ? error::winHttpConnectionError : failure;
}

Error SetNumber(HINTERNET handle, DWORD option, DWORD value) {
    return HttpResultOf(::WinHttpSetOption(handle, option, &value, sizeof value));
}

Error SetText(HINTERNET handle, DWORD option, std::wstring text) {
    // Counted in characters, unlike every other option.
    return HttpResultOf(::WinHttpSetOption(handle, option, text.data(), static_cast<DWORD>(text.size())));
}

Error QueryHeaderText(HINTERNET request, DWORD query, std::wstring& text) {
    DWORD bytes = 0;
    ::WinHttpQueryHeaders(request, query, WINHTTP_HEADER_NAME_BY_INDEX, nullptr, &bytes, WINHTTP_NO_HEADER_INDEX);
    const Error failure = LastError();
    if (failure != error::insufficientBuffer) return failure;
    text.resize(bytes / sizeof(wchar_t) + 1);
    bytes = static_cast<DWORD>(text.size() * sizeof(wchar_t));
    if (!::WinHttpQueryHeaders(request, query, WINHTTP_HEADER_NAME_BY_INDEX, text.data(), &bytes,
                               WINHTTP_NO_HEADER_INDEX)) {
        return LastHttpError();
    }
    text.resize(bytes / sizeof(wchar_t));
    return error::success;
}

Error QueryContentLength(HINTERNET request, std::uint64_t& length) {
    std::wstring text;
    if (const Error failure = QueryHeaderText(request, WINHTTP_QUERY_CONTENT_LENGTH, text)) return failure;
    errno = 0;
    wchar_t* end = nullptr;
    length = std::wcstoull(text.c_str(), &end, 10);
    return end == text.c_str() || text.starts_with(L'-') || errno != 0 ? error::winHttpInvalidServerResponse
                                                                       : error::success;
}

Error QueryStatus(HINTERNET request, DWORD& status) {
    DWORD size = sizeof status;
    return HttpResultOf(::WinHttpQueryHeaders(request, WINHTTP_QUERY_STATUS_CODE | WINHTTP_QUERY_FLAG_NUMBER,
                                              WINHTTP_HEADER_NAME_BY_INDEX, &status, &size, WINHTTP_NO_HEADER_INDEX));
}

}  // namespace platform

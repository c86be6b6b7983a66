#include "platform/windows/http_calls.h"

#include <array>
#include <cerrno>
#include <cwchar>

#include "platform/utf.h"

// After the system's main header, which it needs.
#include <ws2tcpip.h>

namespace platform {

namespace {

/// For systems whose library brings no texts.
std::string OwnText(Error failure) {
    switch (failure) {
#define KV_CASE(name, number, text) \
    case number:                    \
        return text;
        KV_SYSTEM_ERRORS(KV_CASE)
#undef KV_CASE
        default:
            return "";
    }
}

}  // namespace

Error LastHttpError() {
    const Error failure = LastError();
    if (failure == WSAETIMEDOUT) return error::winHttpTimeout;
    const bool ofSocket = failure >= WSABASEERR && failure < error::hostNotFound;
    return ofSocket ? error::winHttpConnectionError : failure;
}

std::string FailureText(Error failure) {
    std::array<wchar_t, 512> text;
    const DWORD size =
        ::FormatMessageW(FORMAT_MESSAGE_FROM_HMODULE | FORMAT_MESSAGE_IGNORE_INSERTS,
                         ::GetModuleHandleW(L"winhttp.dll"), failure, 0, text.data(), text.size(), nullptr);
    std::string line = size == 0 ? OwnText(failure) : Utf8FromWide(Utf16FromWide({text.data(), size}));
    line.erase(line.find_last_not_of(" .\r\n") + 1);
    return line;
}

namespace {

bool IsWine() {
    const HMODULE system = ::GetModuleHandleW(L"ntdll.dll");
    return system != nullptr && ::GetProcAddress(system, "wine_get_version") != nullptr;
}

/// Port of an end of a connection, in network order.
USHORT PortOf(const SOCKADDR_STORAGE& end) {
    return end.ss_family == AF_INET6 ? reinterpret_cast<const sockaddr_in6&>(end).sin6_port
                                     : reinterpret_cast<const sockaddr_in&>(end).sin_port;
}

/// Whether a handle is the socket of a connection.
bool IsSocketOf(SOCKET handle, const WINHTTP_CONNECTION_INFO& connection) {
    SOCKADDR_STORAGE own{};
    SOCKADDR_STORAGE peer{};
    int ownSize = sizeof own;
    int peerSize = sizeof peer;
    return ::getsockname(handle, reinterpret_cast<sockaddr*>(&own), &ownSize) == 0 &&
           ::getpeername(handle, reinterpret_cast<sockaddr*>(&peer), &peerSize) == 0 &&
           PortOf(own) == PortOf(connection.LocalAddress) && PortOf(peer) == PortOf(connection.RemoteAddress);
}

}  // namespace

void CutConnection(HINTERNET request) {
    constexpr SOCKET handles = 0x10000;  // in multiples of four; Wine gives out the lowest that is free
    WINHTTP_CONNECTION_INFO connection{};
    connection.cbSize = sizeof connection;
    DWORD size = sizeof connection;
    if (!IsWine() || !::WinHttpQueryOption(request, WINHTTP_OPTION_CONNECTION_INFO, &connection, &size)) return;
    for (SOCKET handle = 4; handle < handles; handle += 4) {
        if (IsSocketOf(handle, connection)) ::shutdown(handle, SD_BOTH);
    }
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

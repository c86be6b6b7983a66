#include "platform/windows/http_target.h"

#include "platform/http_rules.h"

// After the system's main header, which they need.
#include <shlwapi.h>
#include <ws2tcpip.h>

namespace platform {

namespace {

/// The absolute form of a target.
std::wstring UrlOf(const HttpTarget& target) {
    const std::wstring port = target.port == 0 ? L"" : L":" + std::to_wstring(target.port);
    return (target.secure ? L"https://" : L"http://") + target.host + port + target.path;
}

/// The parts of an absolute URL; none for what is neither http nor https.
std::optional<HttpTarget> SplitUrl(const std::wstring& url) {
    constexpr auto wanted = static_cast<DWORD>(-1);
    URL_COMPONENTS parts{};
    parts.dwStructSize = sizeof parts;
    parts.dwHostNameLength = parts.dwUrlPathLength = parts.dwExtraInfoLength = wanted;
    if (!::WinHttpCrackUrl(url.c_str(), static_cast<DWORD>(url.size()), 0, &parts)) return std::nullopt;
    const std::wstring_view extra(parts.lpszExtraInfo, parts.dwExtraInfoLength);
    std::wstring path(parts.lpszUrlPath, parts.dwUrlPathLength);
    path += extra.substr(0, extra.find(L'#'));  // what follows is the client's own
    return HttpTarget{.secure = parts.nScheme == INTERNET_SCHEME_HTTPS,
                      .host = std::wstring(parts.lpszHostName, parts.dwHostNameLength),
                      .port = parts.nPort,
                      .path = PathFor(TextOf(path))};
}

}  // namespace

std::optional<std::wstring> HostFor(std::u16string_view server) {
    if (!IsHostName(server)) return std::nullopt;
    if (server.find(u':') == std::u16string_view::npos) return WideOf(server);
    if (server.starts_with(u'[') && server.ends_with(u']')) server = server.substr(1, server.size() - 2);
    const std::wstring literal = WideOf(server);
    IN6_ADDR address;
    return ::InetPtonW(AF_INET6, literal.c_str(), &address) == 1 ? std::optional(L"[" + literal + L"]") : std::nullopt;
}

std::wstring PathFor(std::u16string_view path) {
    const std::string encoded = EncodeUrlText(path);
    const std::wstring slash = path.starts_with(u'/') ? L"" : L"/";
    return slash + std::wstring(encoded.begin(), encoded.end());
}

std::optional<HttpTarget> RedirectedTarget(const HttpTarget& from, const std::wstring& location) {
    const std::wstring base = UrlOf(from);
    std::wstring url(base.size() + location.size() + 16, L'\0');  // each text once, a slash or two, and the end
    auto length = static_cast<DWORD>(url.size());
    if (FAILED(::UrlCombineW(base.c_str(), location.c_str(), url.data(), &length, 0))) return std::nullopt;
    url.resize(length);
    auto target = SplitUrl(url);
    return target && (target->secure || !from.secure) ? target : std::nullopt;
}

}  // namespace platform

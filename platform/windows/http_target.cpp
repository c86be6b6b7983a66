#include "platform/windows/http_target.h"

#include "platform/http_rules.h"

// After the system's main header, which they need.
#include <ws2tcpip.h>

namespace platform {

namespace {

/// The URL that a Location means at a target, whose folder it is relative to unless it says more. Dots in it are left
/// to the server.
std::wstring Resolve(const HttpTarget& base, const std::wstring& location) {
    const std::wstring scheme = base.secure ? L"https:" : L"http:";
    const std::wstring port = base.port == 0 ? L"" : L":" + std::to_wstring(base.port);
    const std::wstring root = scheme + L"//" + base.host + port;
    const std::wstring path = base.path.substr(0, base.path.find(L'?'));
    if (location.find(L':') < location.find_first_of(L"/?#")) return location;
    if (location.starts_with(L"//")) return scheme + location;
    if (location.starts_with(L'/')) return root + location;
    if (location.empty() || location.starts_with(L'#')) return root + base.path;
    if (location.starts_with(L'?')) return root + path + location;
    return root + path.substr(0, path.rfind(L'/') + 1) + location;
}

/// The parts of an absolute URL; null for what is neither http nor https, or has a host that cannot be one.
std::optional<HttpTarget> SplitUrl(const std::wstring& url) {
    constexpr auto wanted = static_cast<DWORD>(-1);
    URL_COMPONENTS parts{};
    parts.dwStructSize = sizeof parts;
    parts.dwHostNameLength = parts.dwUrlPathLength = parts.dwExtraInfoLength = wanted;
    if (!::WinHttpCrackUrl(url.c_str(), static_cast<DWORD>(url.size()), 0, &parts)) return std::nullopt;
    const std::wstring_view extra(parts.lpszExtraInfo, parts.dwExtraInfoLength);
    std::wstring path(parts.lpszUrlPath, parts.dwUrlPathLength);
    path += extra.substr(0, extra.find(L'#'));  // what follows is the client's own
    const auto host = HostFor(Utf16FromWide({parts.lpszHostName, parts.dwHostNameLength}));
    if (!host) return std::nullopt;
    return HttpTarget{.secure = parts.nScheme == INTERNET_SCHEME_HTTPS,
                      .host = *host,
                      .port = parts.nPort,
                      .path = PathFor(Utf16FromWide(path))};
}

}  // namespace

std::optional<std::wstring> HostFor(std::u16string_view server) {
    if (!IsHostName(server)) return std::nullopt;
    const bool isLiteral = server.find(u':') != server.npos;
    if (!isLiteral) return server.find_first_of(u"[]") == server.npos ? std::optional(WideOf(server)) : std::nullopt;
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
    return SplitUrl(Resolve(from, location));
}

}  // namespace platform

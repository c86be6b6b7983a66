// Where a request goes: its URL in the form that is sent, and the proxy that it passes through.
//
// Texts in, texts out; nothing here touches the network. Callable from any thread.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace platform {

/// The parts of a URL that decide its way.
struct HttpTarget {
    std::string url;   // absolute; a name is as it was given, all else printable ASCII
    std::string host;  // lower case, an IPv6 literal without its brackets
    std::uint16_t port = 0;
    bool secure = false;
};

/// The target of a path and query on a server; null when no URL can be made of it. Port 0 is the scheme's own.
std::optional<HttpTarget> MakeHttpTarget(bool secure, std::u16string_view server, std::uint16_t port,
                                         std::u16string_view path);

/// The target that a Location header leads to, from the present one; null for what is neither http nor https. A user
/// and password in it are dropped.
std::optional<HttpTarget> RedirectedTarget(const HttpTarget& from, std::string_view location);

/// Whether the bypass list names the target. Entries are separated by semicolons or blanks and compared without regard
/// to case; "*" stands for any text, "<local>" for every name without a dot. An entry may begin with "http://" or
/// "https://" and end in ":port"; then it counts for that scheme or port only.
bool IsBypassed(std::string_view bypassList, const HttpTarget& target);

/// The proxy of a proxy list for a target, as "host:port"; empty when the list has none for its scheme. The list is
/// "host:port", "http://host:port" or entries such as "http=host:port;https=host:port". An entry without port means
/// port 80; an IPv6 address without brackets is a host without port.
std::string ProxyFromList(std::string_view proxyList, const HttpTarget& target);

}  // namespace platform

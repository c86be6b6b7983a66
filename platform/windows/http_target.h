// Where a request goes, in the form that WinHTTP takes.
//
// Texts in, texts out; nothing here touches the network. Callable from any thread.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "platform/windows/win32.h"

// After the system's main header, which it needs.
#include <winhttp.h>

namespace platform {

/// The parts of a URL that decide its way.
struct HttpTarget {
    bool secure = false;
    std::wstring host;       // an IPv6 literal in brackets
    INTERNET_PORT port = 0;  // 0 is the scheme's own
    std::wstring path;       // with the query, in printable ASCII
};

/// The host of a URL for a server's name or address; null for a text that can be neither.
std::optional<std::wstring> HostFor(std::u16string_view server);

/// The path and query as a request line carries them.
std::wstring PathFor(std::u16string_view path);

/// The target that a Location header leads to, from the present one; null for what is neither http nor https.
std::optional<HttpTarget> RedirectedTarget(const HttpTarget& from, const std::wstring& location);

}  // namespace platform

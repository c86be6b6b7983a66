// Whether a server answers, for people who look for what is wrong. Callable from any thread; may throw std::bad_alloc.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "http/answerer.h"
#include "platform/errors.h"

namespace kv {

/// What is asked of whom.
struct ServerPlace {
    bool secure = false;
    std::u16string host;  // a name or an address, an IPv6 address with brackets or without
    std::int32_t port = 0;
    std::u16string path = u"/";  // with the query

    bool operator==(const ServerPlace&) const = default;
};

/// A place as people write it, "https://cs.example.com:8443/", in UTF-8.
std::string UrlOf(const ServerPlace& place);

/// How a server answers.
struct ServerAnswer {
    std::uint32_t status = 0;  // of HTTP, whatever it is
    std::string location;      // where a redirect leads, as the server writes it; empty without one
    Answerer answerer = Answerer::server;
};

/// Asks a place once by GET, with the proxy and trust of the agent state. Redirects are not followed. A failure is the
/// error of an attempt, has left the attempt's log lines, and leaves the answer alone.
platform::Error ProbeServer(const ServerPlace& place, ServerAnswer& answer);

/// Whether a GET that is answered so goes on to another place, if the agent may follow there.
bool IsRedirect(const ServerAnswer& answer);

/// The place that a redirect from a place leads to, which may be out of TLS; null for what is neither http nor https.
/// Dots in a path are left to the server.
std::optional<ServerPlace> RedirectedPlace(const ServerPlace& from, std::string_view location);

}  // namespace kv

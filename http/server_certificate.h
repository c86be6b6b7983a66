// A look at the certificate of a server, for people who decide whether to trust it. Nothing is asked of the server.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "platform/errors.h"
#include "platform/http.h"

namespace kv {

/// A certificate that a server has shown, and what the checks say of it. A check is null when it was not made, empty
/// when it held, else says in UTF-8 why it did not.
struct ServerCertificate {
    std::string server;  // who has shown it, "host:port"
    platform::HttpCertificate certificate;
    std::optional<std::string> keyProblem;     // against KVServerPinnedKey; null when nothing is pinned
    std::optional<std::string> caFileProblem;  // against KVServerCAFile, dates and host name; null without such a file
    std::optional<std::string> systemProblem;  // against the system's authorities, dates and host name; never null
};

/// Connects to an address through the proxy of the agent state (getProxyServerDetails), with TLS whatever the protocol
/// setting says, takes the certificate and hangs up: no request goes out. The checks are those of gv_serverTrust
/// (getServerTrust), which need not hold, and that of the system. A failure is the error of an attempt, such as 12007,
/// 12029, 12002 or 12157 (not a TLS server), and leaves the library's reason in UTF-8, never empty. Takes as long as
/// the connection does, gv_httpTimeout at most. Callable from any thread; may throw std::bad_alloc.
platform::Error FetchServerCertificate(std::u16string_view address, std::int32_t port, ServerCertificate& certificate,
                                       std::string& reason);

/// A time in seconds since 1970, as "2026-11-26 23:12:00 UTC".
std::string UtcText(std::int64_t seconds);

}  // namespace kv

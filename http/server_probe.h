// Whether a server answers, for people who look for what is wrong.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "platform/errors.h"

namespace kv {

/// How a server answers.
struct ServerAnswer {
    std::uint32_t status = 0;  // of HTTP, whatever it is
    std::string location;      // where a redirect leads, as the server writes it; empty without one
};

/// Asks an address once for "/", which changes nothing at the server, with the protocol, proxy and trust of the agent
/// state. Redirects are not followed. A failure is the error of an attempt, has left the attempt's log lines, and
/// leaves the answer alone. Callable from any thread; may throw std::bad_alloc.
platform::Error ProbeServer(std::u16string_view address, std::int32_t port, ServerAnswer& answer);

}  // namespace kv

// Whether a server answers, for people who look for what is wrong.
#pragma once

#include <cstdint>
#include <string_view>

#include "platform/errors.h"

namespace kv {

/// Asks an address once for "/", which changes nothing at the server, with the protocol, proxy and trust of the agent
/// state, and gives the status of its answer, whatever that is. A failure is the error of an attempt, has left the
/// attempt's log lines, and leaves the status alone. Callable from any thread; may throw std::bad_alloc.
platform::Error ProbeServer(std::u16string_view address, std::int32_t port, std::uint32_t& status);

}  // namespace kv

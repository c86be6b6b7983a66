// One-off requests from the server. The registry is the mailbox. Its value RequestAvailable, written from outside the
// agent, says that a list of requests waits at the server. RequestID names the request being served: one that brought
// the agent down is dropped and not served again.
#pragma once

#include <cstdint>

namespace kv {

/// Thread body: looks every 30 seconds whether requests wait, and then fetches their list and serves it. At each look
/// plans that could not be opened are read again. Never returns.
std::uint32_t RequestCentralServer(void* ignored);

}  // namespace kv

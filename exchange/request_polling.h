// One-off requests from the server. The registry is the mailbox: its value RequestAvailable, written from outside the
// agent, says that a list of requests waits at the server; RequestID names the request being served, so that one that
// brought the agent down is dropped and not served again.
#pragma once

#include <cstdint>

namespace kv {

/// Thread body: looks every 30 seconds whether requests wait, fetches their list and serves it. Plans that could not be
/// opened are read again then. Never returns.
std::uint32_t RequestCentralServer(void* ignored);

}  // namespace kv

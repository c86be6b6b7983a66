// One-off requests from the server.
#pragma once

#include <cstdint>

namespace kv {

/// Thread body of the request poller. Not built yet: it says so in the log and ends.
std::uint32_t RequestCentralServer(void* ignored);

}  // namespace kv

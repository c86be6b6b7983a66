// Requests that act on this computer at once: one query (TEST_MONITOR), one service to start or stop (START_SERVICE,
// STOP_SERVICE).
#pragma once

#include "foundation/hash_table.h"
#include "foundation/text.h"

namespace kv {

/// Serves one request of these three types, which stays the caller's. The answer is posted only when the request has
/// RESPONSE_NEEDED "YES", and a failure is in it, under ERRORMSG. A request whose result would have the name of another
/// member of the answer is not served. With a refusal, a reason, nothing is done, and the answer is that of a failure.
/// Services that AllowedServices does not have are left alone, too. Blocks for the length of the query, or until the
/// service has changed its state.
void ExecWMIQuery(const HashTable* request, const OptionalText& refusal = std::nullopt);

}  // namespace kv

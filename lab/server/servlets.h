// What the server does for each servlet, apart from HTTP: a request comes in as one record, and its answer goes out as
// another.
#pragma once

#include <cstdint>
#include <set>
#include <string>
#include <string_view>

#include "lab/page/answer.h"
#include "lab/server/http_request.h"
#include "lab/server/memory_budget.h"
#include "lab/store/store.h"

namespace kv::lab {

/// What the servlets know of their server.
struct ServletSettings {
    std::int64_t timeDiff = 0;          // seconds that agents add to their clock
    std::set<std::string> refusedKeys;  // agents with these keys are told not to run
    MemoryBudget& unpacked;             // for what uploads hold
};

/// Serves one of servletNames. A malformed request is answered with 400 and one line, another servlet with 404, another
/// method with 405. DatabaseError passes through.
Answer Serve(Store& store, const ServletSettings& settings, std::string_view servlet, const ServletRequest& request);

/// The answer to such a body. It is noted as refused if it was meant for the upload servlet.
Answer RefuseBody(Store& store, BodyFault fault, std::string_view servlet, const ServletRequest& request);

}  // namespace kv::lab

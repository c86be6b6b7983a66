// What the server does for each servlet, apart from HTTP: a request comes in as one record, and its answer goes out as
// another.
#pragma once

#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "lab/store.h"

namespace kv::lab {

struct ServletRequest {
    std::string method;                             // "GET" or "POST"
    std::string path;                               // without the query
    std::multimap<std::string, std::string> query;  // decoded
    std::string_view body;
    std::string address;  // of the sender
    bool cut = false;     // only half of the answer will be sent
};

struct Answer {
    int status = 200;
    std::string body;
    std::string type = "text/plain; charset=utf-8";
    std::vector<std::pair<std::string, std::string>> headers;
};

/// An answer with one line of text.
Answer TextAnswer(int status, const std::string& line);

/// What enrolling agents are told.
struct Enrolment {
    std::int64_t timeDiff = 0;          // seconds that agents add to their clock
    std::set<std::string> refusedKeys;  // agents with these keys are told not to run
};

/// Serves one of servletNames. A malformed request is answered with 400 and one line, another servlet with 404, another
/// method with 405. DatabaseError passes through.
Answer Serve(Store& store, const Enrolment& enrolment, std::string_view servlet, const ServletRequest& request);

/// Why a body is not served at all.
enum class BodyFault { tooLarge, incomplete };

/// The answer to such a body. It is noted as refused if it was meant for the upload servlet.
Answer RefuseBody(Store& store, BodyFault fault, std::string_view servlet, const ServletRequest& request);

/// The whole page, its changing part, and records for tools.
Answer ServePage(Store& store);
Answer ServeFragment(Store& store);
Answer ServeRecords(Store& store, const ServletRequest& request);

}  // namespace kv::lab

// An HTTP request as the server's daemon hands it over, and what becomes of it.
#pragma once

#include <chrono>
#include <optional>
#include <string>

#include "lab/page/answer.h"

namespace kv::lab {

/// Why a body is not served at all.
enum class BodyFault { tooLarge, incomplete };

struct HttpRequest {
    ServletRequest call;  // its body is the one below, which is empty after a fault
    std::string body;
    std::optional<BodyFault> fault;
    bool delayed = false;  // it comes for the second time, after a delay
};

struct HttpOutcome {
    enum class Kind {
        answer,
        half,  // the whole answer is announced, half of its body is sent
        drop,  // the connection ends, and nothing more reaches the sender
        delay  // the request is handed over again later; no thread waits meanwhile
    };
    Kind kind = Kind::answer;
    Answer answer;
    std::chrono::milliseconds delay{0};
};

}  // namespace kv::lab

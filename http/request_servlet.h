// The server's side of one-off requests: its address and the answers that go there.
#pragma once

#include <string>
#include <string_view>

#include "foundation/hash_table.h"

namespace kv {

/// Path and query of the server's side of all requests, up to this agent's key: what else is said follows as
/// "&name=value".
std::u16string RequestServletUrl();

/// A text of a request, or an empty one where there is none.
std::u16string RequestText(const HashTable* request, std::u16string_view key);

/// Path and query under which the answer to a request is posted.
std::u16string RequestAnswerUrl(std::u16string_view action, std::u16string_view requestId);

/// Posts the answer to a request, JSON text in UTF-16LE. One that the server does not take is lost, with a log line;
/// action and requestId say to what it is the answer.
void PostRequestAnswer(std::u16string_view action, std::u16string_view requestId, std::u16string_view json);

}  // namespace kv

// The server's side of one-off requests: its URL, and the answers that are posted there.
#pragma once

#include <string>
#include <string_view>

#include "foundation/hash_table.h"

namespace kv {

/// Path and query of the server's side of all requests, up to this agent's key: what else is said follows as
/// "&name=value".
std::u16string RequestServletUrl();

/// A text of a request; empty when the member is absent or is not a text.
std::u16string RequestText(const HashTable* request, std::u16string_view key);

/// Path and query under which the answer to a request is posted.
std::u16string RequestAnswerUrl(std::u16string_view action, std::u16string_view requestId);

/// Posts the answer to a request, JSON text, as UTF-16LE. action and requestId say which request. An answer that the
/// server does not take is lost, with a log line.
void PostRequestAnswer(std::u16string_view action, std::u16string_view requestId, std::u16string_view json);

}  // namespace kv

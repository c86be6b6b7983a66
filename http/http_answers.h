// What an answer means, and what a missing one does.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "platform/errors.h"

namespace kv {

/// Logs the explanation of a transport error; of any other number the system's text.
void HttpGetLastError(platform::Error errorCode);

/// Why a transaction failed, in words for people: of a transport error, and of any other number the system's text.
/// Throws std::bad_alloc.
std::string TransactionFailure(platform::Error errorCode);

/// The path of a URL, without its query.
std::u16string_view PathOfUrl(std::u16string_view url);

/// Takes the values that the server sends in its headers: "timeDiff: ", "AgentKey: ", "AgentRun: " and "SNMPTimeout: ".
/// headerBuffer is the raw header text, its lines ending in CRLF. 1, or 0 when it is null. A timeDiff that is not a
/// number counts as 0; any other value that cannot be used leaves a log line and the state as it was.
int ParseHeader(std::optional<std::u16string_view> headerBuffer);

}  // namespace kv

// What an answer, or the lack of one, means.
#pragma once

#include <optional>
#include <string_view>

#include "platform/errors.h"

namespace kv {

/// Logs the explanation of a transport error, or the system's text where the number is not of the transport's own.
void HttpGetLastError(platform::Error errorCode);

/// Takes the values that the server sends in its headers: "timeDiff: ", "AgentKey: ", "AgentRun: " and "SNMPTimeout: ".
/// headerBuffer is the raw header text, lines ending in CRLF, or none. 1 when a header text was read, 0 for none.
int ParseHeader(std::optional<std::u16string_view> headerBuffer);

}  // namespace kv

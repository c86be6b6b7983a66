// Serves a list of one-off requests, one after the other, by their REQUEST_TYPE.
#pragma once

#include <string_view>

namespace kv {

/// Serves the list in a file: JSON text in UTF-16LE, whose member "RequestList" is an array of objects, each a request.
/// Each request with an AGENT_REQUEST_ID is marked by it in the registry value RequestID while it is served. One
/// request's failure is its own: it is logged, and the rest is served. False, and nothing served, when the file
/// holds no list that can be read.
bool ParseRequestList(std::u16string_view fileName);

}  // namespace kv

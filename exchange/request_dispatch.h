// Serves a list of one-off requests, one after the other, by their REQUEST_TYPE.
#pragma once

#include <string_view>

namespace kv {

/// Serves the list in a file: JSON text in UTF-16LE, whose member "RequestList" is an array of objects, each a request.
/// The registry value RequestID holds a request's AGENT_REQUEST_ID, if it has one, while it is served. A request that
/// fails is logged, and the rest is served. False, with nothing served, when the file has no list that can be read.
bool ParseRequestList(std::u16string_view fileName);

}  // namespace kv

// The views of the lab's server, each at its path: the page and its parts for people, records and values for tools.
#pragma once

#include <optional>

#include "lab/page/answer.h"
#include "lab/store/store.h"

namespace kv::lab {

/// Answers a GET of a view; absent when no view has this path. A parameter that cannot be read is answered with 400 and
/// one line. DatabaseError passes through.
std::optional<Answer> ServeView(Store& store, const ServletRequest& request);

/// An answer of an error, which is a line of text, as who asks can show it: for a browser it is a page that leads on.
Answer ShownError(Answer answer, const ServletRequest& request);

}  // namespace kv::lab

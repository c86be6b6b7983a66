#pragma once

#include <stdexcept>

namespace kv::lab {

/// Why the server could not be started, in one line.
struct ServerError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

}  // namespace kv::lab

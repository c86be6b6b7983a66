// Keeps a thread alive when one piece of its work runs into an exception, such as memory that has run out.
#pragma once

#include <exception>

#include "foundation/log.h"

namespace kv {

/// Runs one piece of work. A std::exception ends that piece, leaves a log line that names it, and goes no further; any
/// other exception passes through.
template <class Work>
void RunGuarded(const char* name, Work&& work) {
    try {
        work();
    } catch (const std::exception& failure) {
        Log1("\t %s :: ended early : %s \n", name, failure.what());
    }
}

}  // namespace kv

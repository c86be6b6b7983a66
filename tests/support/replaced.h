// One operation of the system, replaced for a while.
#pragma once

#include <utility>

#include "platform/seam.h"

namespace kv::test {

/// The current operations with another routine in one place.
template <class Operations, class Operation, class Routine>
Operations With(Operation Operations::*operation, Routine routine) {
    Operations operations = platform::CurrentOperations<Operations>();
    operations.*operation = std::move(routine);
    return operations;
}

/// Puts a routine in the place of one current operation, and takes it out at the end of its life.
template <class Operations>
struct Replaced : platform::ScopedOperations<Operations> {
    template <class Operation, class Routine>
    Replaced(Operation Operations::*operation, Routine routine)
        : platform::ScopedOperations<Operations>(With(operation, std::move(routine))) {}
};

}  // namespace kv::test

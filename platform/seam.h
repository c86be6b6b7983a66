// How the agent's logic reaches the operating system.
//
// Each header of this folder that declares an ...Operations record lists operations, named as Windows names them. The
// logic calls the record that is current. The program installs its system's records once, at its start
// (platform/backend.h). A test installs a record of its own to make a call fail, to answer a query, or to let a minute
// pass in no time.
//
// Exceptions: an operation that returns an error number (Error, WmiStatus, a C error number) throws nothing; memory
// that has run out is one of these numbers. An operation that returns nothing throws nothing, so a destructor may call
// it. One that returns something else, such as a text, a list or a yes or no, may throw std::bad_alloc and nothing
// else. The backends keep this by Guarded (platform/guarded.h). Only a test's own record may throw more.
//
// Replacing a record is not synchronised: it happens in main before the first thread starts, or while no other runs.
#pragma once

#include <utility>

namespace platform {

template <class Operations>
inline Operations currentRecord;  // a static of the routine below would cost each call a look at its guard

/// The one current record of a list of operations.
template <class Operations>
Operations& CurrentOperations() {
    return currentRecord<Operations>;
}

/// Replaces the current record of a list for as long as this object lives, and puts the former one back at its end. To
/// change only a few operations, start from a copy of the current record.
template <class Operations>
class ScopedOperations {
  public:
    explicit ScopedOperations(Operations replacement)
        : former_(std::exchange(CurrentOperations<Operations>(), std::move(replacement))) {}
    ~ScopedOperations() { CurrentOperations<Operations>() = std::move(former_); }
    ScopedOperations(const ScopedOperations&) = delete;
    ScopedOperations& operator=(const ScopedOperations&) = delete;

  private:
    Operations former_;
};

}  // namespace platform

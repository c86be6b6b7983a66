// How the agent's logic reaches the operating system.
//
// Each header of this folder declares one plain record of operations, named as Windows names them. The logic calls the
// record that is current; the program installs its system's records once at start (platform/backend.h); a test installs
// a record of its own to make a call fail, to answer a query, or to let a minute pass in no time.
//
// Replacing a record is not synchronised: it happens in main before the first thread starts, or while none runs.
#pragma once

#include <utility>

namespace platform {

template <class Operations>
inline Operations currentRecord;  // within the routine below it would be guarded, at a price for each call

/// The one current record of a list of operations.
template <class Operations>
Operations& CurrentOperations() {
    return currentRecord<Operations>;
}

/// Replaces the current record of a list for as long as this object lives, and puts the former one back at its end.
/// Start from a copy of the current record to change a few operations only.
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

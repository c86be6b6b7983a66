// Reading mapped files that may be cut off, or whose disk may fail, meanwhile.
//
// The kernel then sends SIGBUS to the thread that reads, which ends the process unless it is handled. For a thread that
// has announced such reads the page that cannot be read becomes one of zeros, and the thread can ask whether that
// happened. For all others SIGBUS does what it did before.
#pragma once

namespace kv::facts {

/// While one lives, its thread reads mapped files. A thread has one at a time.
class MappedReads {
  public:
    MappedReads();
    ~MappedReads();
    MappedReads(const MappedReads&) = delete;
    MappedReads& operator=(const MappedReads&) = delete;

    /// Whether a page could not be read since the last call.
    bool takeDamage();
};

}  // namespace kv::facts

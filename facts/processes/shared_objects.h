// What processes share by name: semaphores and shared memory, of System V (/proc/sysvipc) and of POSIX (/dev/shm).
#pragma once

#include <cstdint>
#include <optional>
#include <string_view>

namespace kv::facts {

struct SharedObjects {
    std::uint64_t semaphores = 0;  // each of a set is one
    std::uint64_t memories = 0;    // segments
};

/// The semaphores of all sets in the text of /proc/sysvipc/sem.
std::uint64_t CountSemaphores(std::string_view text);

/// Counts those of this computer, none of a kind that the kernel lacks; absent when they cannot be read.
std::optional<SharedObjects> CountSharedObjects();

}  // namespace kv::facts

// Who holds a lock that flock gave, as the kernel lists them for everybody. To look takes no lock.
#pragma once

#include <cstdint>
#include <string>

#include "platform/errors.h"

namespace platform {

/// The process that has the exclusive lock on the file or directory at a path: fileNotFound when none has it, or
/// nothing is there; notSupported where the kernel lists no locks. Btrfs and overlays list another device than the file
/// has, both with a major number of 0: then only the inode is compared, and the process may be of another file.
Error FindExclusiveLock(const std::string& path, std::uint32_t& processId);

}  // namespace platform

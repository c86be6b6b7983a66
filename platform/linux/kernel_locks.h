// Who holds a lock that flock gave, as the kernel lists them for everybody. To look takes no lock.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "platform/errors.h"

namespace platform {

/// Adds the processes that may have the exclusive lock on the file or directory at a path. fileNotFound when nobody has
/// it, or nothing is there. notSupported where the kernel lists no locks, or where none is listed in a container, which
/// sees only locks of its own processes. Another error when the path may not be looked at. Btrfs and overlays list
/// another device than the file has, both with a major number of 0: then only the inode is compared, and a process may
/// be one that has locked another file.
Error FindExclusiveLocks(const std::string& path, std::vector<std::uint32_t>& processes);

}  // namespace platform

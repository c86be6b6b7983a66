// A child process together with everything that it has started.
#pragma once

#include <sys/types.h>

#include "platform/errors.h"

namespace platform {

/// Kills a child of this process, its process group, and all that descends from it, whatever session or group that has
/// moved to and whatever signals it ignores. The child must have been made the one that orphans below it fall to
/// (PR_SET_CHILD_SUBREAPER), and must not have been reaped yet.
///
/// accessDenied when a process of the tree runs as a user that this process may not signal; the rest is killed.
Error KillProcessTree(pid_t child);

}  // namespace platform

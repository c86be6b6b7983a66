// One agent at a time works in an install directory. Two would give the same numbers to their records, and pack and
// delete each other's. The file "agent.lock" in the bin directory is locked by the one that works and holds its process
// number; the lock ends with the process, so that what a crash leaves behind keeps nobody out.
#pragma once

namespace kv {

/// Returns when this process is the one that works in the bin directory (the working directory if that cannot be
/// entered). While another one does, it waits, because no run mode ends by itself: it looks once a second, and says
/// what it waits for in the log, on standard error and to the service manager. Where the directory cannot be locked, it
/// leaves a line and returns. Called by the main thread alone.
void WaitForDirectory();

/// Whether this process has the lock, or waits for it. Callable from any thread.
bool HoldsDirectory();
bool WaitsForDirectory();

}  // namespace kv

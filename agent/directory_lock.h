// One agent at a time works in an install directory. Two would give the same numbers to their records, and pack and
// delete each other's. The bin directory is locked by the one that works, on Linux the install directory as well, and
// the file "agent.lock" in bin holds its process number. The lock ends with the process, so that a crash keeps nobody
// out; to delete the file, or the bin directory, lets nobody in.
#pragma once

#include <cstdint>
#include <string_view>

#include "platform/errors.h"

namespace kv {

inline constexpr std::u16string_view lockFileName = u"agent.lock";

/// Returns when this process is the one that works in gv_ocAgentBinPath. It waits while that cannot be entered
/// (agent/bin_directory.h), and reads the settings again then. While another one does, it waits, because no
/// run mode ends by itself: it looks once a second, and says what it waits for in the log, on standard error and to the
/// service manager. Nothing but the lock ends a wait. Then the log is opened again by its name, and the settings are
/// read again: both may have changed meanwhile. Where the directory cannot be locked at the first try, it leaves a line
/// and returns. Called once, by the main thread, before other threads read the settings.
void WaitForDirectory();

/// Whether this process has the lock, or waits in WaitForDirectory, until the settings have been read again. Callable
/// from any thread.
bool HoldsDirectory();
bool WaitsForDirectory();

/// Whether it waits for the end of another agent, whose files all of the directory's are then. Callable from any
/// thread.
bool WaitsForAgent();

/// The process of the agent that works in a bin directory, whose path ends in a separator. fileNotFound when none does;
/// another error when that cannot be told. Asks without taking the lock. Callable from any thread.
[[nodiscard]] platform::Error FindWorkingAgent(std::u16string_view binPath, std::uint32_t& processId);

}  // namespace kv

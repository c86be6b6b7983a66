// The bin directory, where the agent works: each of its relative paths begins there.
#pragma once

#include <string_view>

namespace kv {

/// The install directory, with its separator, that a bin path was made from; empty for a path that was not made so.
std::u16string_view InstallDirectoryOf(std::u16string_view binPath);

/// Makes "monitoring" of the install directory where it is missing, so that the log and all else has a place; why that
/// failed, a number of directory_error. Does nothing without an install directory: a mistyped setting makes no tree
/// somewhere else. For the run modes in which the agent works.
int MakeMonitoringDirectory();

/// Makes gv_ocAgentBinPath the working directory, and makes it first where it is missing in an install directory. Each
/// outcome leaves a line. Called once, by the main thread.
void EnterBinDirectory();

/// Waits while gv_ocAgentBinPath cannot be the working directory, and tries once a second. Why stands in the log, on
/// standard error, in status.json and at the service manager. True when it had to wait. For the main thread, while no
/// other one reads the settings.
bool WaitForBinDirectory();

}  // namespace kv

// The agent's own service at the service manager: installing, removing, starting and stopping it.
#pragma once

#include <cstdint>
#include <string_view>

namespace kv {

/// Creates the service, which starts with the system and is started again after its first two failures. It is not
/// started now. The outcome is in the log and on the console.
void Install();

/// Removes the service. One that runs goes on until it is stopped. The outcome is in the log and on the console.
void UnInstall();

/// Starts a service and waits as long as it makes progress. 0 when it runs; else the error that kept it from being
/// opened or queried, or the number of the state that it stays in.
std::uint32_t StartingService(std::u16string_view name);

/// Stops the service of this agent, which is this process when it runs as one, and waits about a minute for its end.
/// The outcome is in the log.
void StopService();

/// StopService, then StartingService, whatever came of the stop.
void RestartService();

/// True for systems without a session-change control: Windows 2000 and older, and those that are not Windows. False,
/// with a log line, when the system does not tell its version.
[[nodiscard]] bool IsWin2kOS();

}  // namespace kv

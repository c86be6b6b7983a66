// The agent's own service at the service manager: installing, removing, starting and stopping it.
#pragma once

#include <cstdint>
#include <string_view>

namespace kv {

/// Creates the service, to be started with the system, with what follows its failures. It is not started now. The
/// outcome is in the log.
void Install();

/// Removes it; one that runs goes on until it is stopped.
void UnInstall();

/// Starts a service and waits as long as it makes progress. 0 when it runs; else the error that kept it from being
/// opened, or the number of the state it stays in.
std::uint32_t StartingService(std::u16string_view name);

/// Stops the service of this agent, which is this process when it runs as one, and waits about a minute for its end.
void StopService();

void RestartService();

/// True for systems that offer no session-change control: Windows 2000 and older, and all that are no Windows.
[[nodiscard]] bool IsWin2kOS();

}  // namespace kv

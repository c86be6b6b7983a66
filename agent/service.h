// The agent as a service of the system. Not built yet: each routine says so in the log and does nothing.
#pragma once

#include <string_view>

namespace kv {

inline constexpr std::u16string_view serviceName = u"Corvinel Monitoring Agent";

/// Entry point that the service manager calls.
void ServiceMain();

/// Creates and removes the service.
void Install();
void UnInstall();

/// Stops this agent's own service.
void StopService();

}  // namespace kv

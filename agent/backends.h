// What the agent has of this system.
#pragma once

namespace kv {

/// Installs every record of operations. Called once, first thing in every program that runs the agent.
void InstallBackends();

}  // namespace kv

// The system's operations that the agent uses.
#pragma once

namespace kv {

/// Installs every record of operations. A program that runs the agent calls it once, before anything else.
void InstallBackends();

}  // namespace kv

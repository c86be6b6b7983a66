// The program's entry: finds the install directory, sets the defaults and takes the run mode from the first argument.
#pragma once

#include <string>
#include <vector>

namespace kv {

/// Takes the words of the command line, the program's own name first, in UTF-8. Returns the exit code of the process;
/// "/t" never returns. Called once.
int Main(const std::vector<std::string>& words);

/// Gives the settings of the agent state their defaults (foundation/agent_state.h). In the agent's health nothing has
/// happened yet (foundation/agent_health.h).
void InitAgentParams();

/// Does nothing. Work of "/monitor" beyond printing the configuration would belong here.
void ProcessTestMonitor();

}  // namespace kv

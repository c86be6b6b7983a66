// The program's entry: finds the install directory, sets every default and takes the run mode from the first argument.
#pragma once

#include <string>
#include <vector>

namespace kv {

/// Takes the words of the command line, the program's own name first, in UTF-8. The process exit code; "/t" does not
/// return.
int Main(const std::vector<std::string>& words);

/// Gives the settings of the agent state their defaults (foundation/agent_state.h).
void InitAgentParams();

/// Where the work of "/monitor" beyond printing the configuration belongs; there is none.
void ProcessTestMonitor();

}  // namespace kv

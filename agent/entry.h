// The program's entry: finds the install directory, sets every default and takes the run mode from the first argument.
#pragma once

namespace kv {

/// The process exit code. "/t" does not return.
int Main(int argc, char** argv);

/// Every default of the agent state.
void InitAgentParams();

/// Where the work of "/monitor" beyond printing the configuration belongs; there is none.
void ProcessTestMonitor();

}  // namespace kv

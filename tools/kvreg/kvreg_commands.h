// The commands of kvreg, the command-line tool of the agent's registry.
#pragma once

#include "commandline/program.h"

namespace kv {

/// The backend and the registry must be installed before its commands run.
const commandline::Program& RegistryTool();

}  // namespace kv

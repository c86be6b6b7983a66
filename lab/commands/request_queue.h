// How a command brings a request to an agent: it puts it into the database, from which the server hands it out, and
// sets the flag RequestAvailable in the registry of the agent's machine, which makes the agent ask. The server cannot
// reach that registry; a command can if the agent runs on the same machine.
#pragma once

#include <functional>
#include <string>

#include "lab/commands/command_line.h"

namespace kv::lab {

/// Calls add, which adds a request for an agent and gives its id, sets the flag and prints the id, by the options
/// --database, --state and --no-flag. Nothing is added when the agent is unknown or its registry is missing
/// (NotFoundError), or when the registry is another agent's (std::runtime_error). With --no-flag nothing of that is
/// checked, and the flag is not set.
void QueueForAgent(const Given& given, const std::string& agent, const std::function<std::string(Store&)>& add);

}  // namespace kv::lab

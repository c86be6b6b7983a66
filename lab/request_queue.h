// How a command brings a request to an agent: into the database, from where the server hands it out, and with the flag
// RequestAvailable in the registry of the agent's machine, which makes the agent ask. The server cannot reach that
// registry; a command can when the agent runs on the same machine.
#pragma once

#include <functional>
#include <string>

#include "lab/command_line.h"

namespace kv::lab {

/// Has a request added for an agent (add gives its id), raises the flag and prints the id, by the options --database,
/// --state and --no-flag. Nothing is added when the agent is unknown, or its registry is missing (NotFoundError) or is
/// another agent's (std::runtime_error); with --no-flag nothing of that is checked.
void QueueForAgent(const Given& given, const std::string& agent, const std::function<std::string(Store&)>& add);

}  // namespace kv::lab

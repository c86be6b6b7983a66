// kvagentctl, the program for people who look after an agent.
//
// It shares the agent's libraries, and never disturbs an agent that runs beside it: it opens neither its log nor its
// counters for writing.
#pragma once

#include "commandline/program.h"

namespace kv {

const commandline::Program& ControlTool();

}  // namespace kv

// The program kvlab: a central server for testing the monitoring agent.
#pragma once

#include "commandline/program.h"

namespace kv::lab {

const commandline::Program& LabProgram();

}  // namespace kv::lab

// The program kvlab: a central server to try and test the monitoring agent against.
#pragma once

#include "commandline/program.h"

namespace kv::lab {

const commandline::Program& LabProgram();

}  // namespace kv::lab

// The verbs of kvagentctl. Each has a source of its own, which describes its command line and runs it.
#pragma once

#include "commandline/program.h"

namespace kv::control {

// A row for each verb, in the order of the help.
const commandline::Command& StatusVerb();
const commandline::Command& CollectVerb();
const commandline::Command& QueryVerb();
const commandline::Command& SnmpVerb();
const commandline::Command& SetupVerb();
const commandline::Command& CheckVerb();
const commandline::Command& PinVerb();
const commandline::Command& LogVerb();

}  // namespace kv::control

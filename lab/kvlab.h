// The command line of kvlab.
#pragma once

namespace kv::lab {

/// Exit codes: 0 success, 1 a failure, 2 a wrong command line, 3 the thing asked for does not exist. What was wrong is
/// said in one line on standard error.
int RunCommandLine(int count, char** arguments);

}  // namespace kv::lab

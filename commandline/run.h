// Runs a program by its description, and what all programs write alike.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "commandline/program.h"

namespace kv::commandline {

/// Runs the command that a command line, without the program's name, asks for, or prints help or the version. Gives the
/// exit code: 0 success, 1 failure, 2 wrong command line, 3 the thing asked for does not exist. What went wrong is told
/// in one line on standard error. Throws nothing.
///
/// Options may be written as --name VALUE or --name=VALUE, those with a short name as -n VALUE or -nVALUE. After -- all
/// words are plain ones; a -- at the very end is a plain word itself.
int RunCommandLine(const Program& program, const std::vector<std::string>& words);

/// Throws std::runtime_error when standard output cannot be written.
void FlushOutput();

/// A text with its control characters escaped.
std::string InLine(std::string_view text);

}  // namespace kv::commandline

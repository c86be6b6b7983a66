// The files about a program's commands that packages install, from its description.
#pragma once

#include <string>
#include <string_view>

#include "commandline/program.h"

namespace kv::commandline {

/// A manual page: a template whose lines @SYNOPSIS@ and @COMMANDS@ are replaced.
std::string ManualPage(const Program& program, std::string_view pageTemplate);

/// What bash reads to complete command lines of the program: commands, options, files and folders.
std::string BashCompletion(const Program& program);

}  // namespace kv::commandline

// What keeps a record's script from running.
#pragma once

#include <string>
#include <string_view>

namespace kv::control {

/// Whether a program is found by its name, or its path, as env looks for it.
bool IsInPath(const std::string& program);

/// What is wrong with the first line of a script, by which the system finds its interpreter, behind the script's name;
/// empty when nothing is. Without such a line, and of a file that is not executable, /bin/sh runs it.
std::string FirstLineFault(std::u16string_view path, bool isExecutable);

}  // namespace kv::control

// What keeps a record's script from running.
#pragma once

#include <string>
#include <string_view>

namespace kv::control {

/// What is wrong with the first line of a script, by which the system finds its interpreter, behind the script's name;
/// empty when nothing is. One that is not executable is run by /bin/sh whatever that line says, unless it ends in a
/// carriage return.
std::string FirstLineFault(std::u16string_view path, bool isExecutable);

}  // namespace kv::control

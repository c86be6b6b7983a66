// What a program that people run at a command line needs of the system beside the records of operations. Texts and file
// names are UTF-8, as CommandLineWords gives them.
#pragma once

#include <string>
#include <string_view>

namespace platform {

/// A sentence that tells where the registry is kept.
std::string_view RegistryPlace();

/// False when standard output is known to lead to nobody any more, which what prints seldom would not notice otherwise.
bool OutputHasReader();

/// Writes a file whole or not at all: a former one stays as it is after a failure. A new one may be read by its owner
/// alone, and on Windows by administrators and the system. A name that leads to another file is followed; what is no
/// file, such as a device or a pipe, is written to, and on Linux so is what standard output leads to. Empty, or the
/// system's text of what went wrong.
std::string WriteFileWhole(const std::string& name, std::string_view bytes);

}  // namespace platform

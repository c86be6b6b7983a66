// Installs this system's own records of operations behind every header of this folder.
#pragma once

#include <string>
#include <vector>

namespace platform {

/// Makes the records of the running system the current ones. Called once, first thing in every program and test.
void InstallBackend();

/// The words of this process's command line in UTF-8, the program's own name first, of what main was given.
std::vector<std::string> CommandLineWords(int argc, char** argv);

}  // namespace platform

// Scripts for the system's command interpreter. Lines such as "echo text" and "exit 3" work in both systems.
#pragma once

#include <string>

namespace kv::test {

/// A script of these lines. Its name has to end with ".bat".
std::string ScriptText(const std::string& lines);

extern const std::string lineEnd;         // at the end of what echo prints
extern const std::string printArguments;  // a line that prints five arguments with commas between them
extern const std::string printFile;       // a command that prints the file whose name follows

}  // namespace kv::test

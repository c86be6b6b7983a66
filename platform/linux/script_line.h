// The shell line that runs a script.
#pragma once

#include <string>

#include "platform/process.h"

namespace platform {

/// A line for /bin/sh -c that replaces the shell by the script. The script's path and each argument are quoted, so the
/// shell interprets nothing in them. A script that may not be executed is run by /bin/sh.
std::u16string ComposeScriptLine(const ScriptCommand& command);

/// 16-bit text from a host that is told to print it (switch "//U"), else UTF-8.
ScriptOutputEncoding GetScriptOutputEncoding(std::u16string_view scriptHost);

}  // namespace platform

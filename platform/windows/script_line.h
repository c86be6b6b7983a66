// The command line that runs a script.
#pragma once

#include <string>

#include "platform/process.h"

namespace platform {

/// cmd.exe with the script's command, in quotes of its own. Arguments are data: what the interpreter would take for its
/// own signs is escaped, but for names of variables between percent signs, for which there is no escape.
std::u16string ComposeScriptLine(const ScriptCommand& command);

/// 16-bit text from a host that is told to print it (switch "//U"), else UTF-8.
ScriptOutputEncoding GetScriptOutputEncoding(std::u16string_view scriptHost);

}  // namespace platform

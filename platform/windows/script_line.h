// The command line that runs a script, and what it prints.
#pragma once

#include <string>
#include <string_view>

#include "platform/process.h"

namespace platform {

/// cmd.exe with the script's command, in quotes of its own, and with an empty standard input. Arguments are data: those
/// with signs of the interpreter's are in quotes, which a batch file takes off with "%~1".
std::u16string ComposeScriptLine(const ScriptCommand& command);

/// 16-bit text from a host that is told to print it (switch "//U"), else UTF-8.
ScriptOutputEncoding GetScriptOutputEncoding(std::u16string_view scriptHost);

/// Text of bytes in the system's OEM code page, in which a console without a window prints.
std::u16string WideFromConsoleBytes(std::string_view bytes);

}  // namespace platform

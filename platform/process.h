// Child processes, and the system's command interpreter.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

#include "platform/errors.h"
#include "platform/owned_handle.h"
#include "platform/seam.h"

namespace platform {

/// A started child process, which CloseProcess closes, or 0.
using ProcessHandle = std::uintptr_t;

/// A script as the command interpreter is to run it.
struct ScriptCommand {
    std::u16string scriptHost;  // program and options that run the script, or empty: the script runs by itself
    std::u16string path;        // the script, with backslashes
    std::u16string arguments;   // separated by blanks; double quotes keep blanks together
    std::optional<std::u16string> outputPath;       // where the standard output is appended; absent: it is dropped
    std::optional<std::u16string> errorsPath = {};  // the same of standard error
};

enum class ScriptOutputEncoding { utf8, utf16LittleEndian };

struct ProcessOperations {
    /// The command line that makes this system's command interpreter run the script. Signs that mean something to the
    /// interpreter are data. The script's standard input is empty.
    std::function<std::u16string(const ScriptCommand& command)> ComposeScriptLine;

    /// What a script prints, which depends on the host that runs it (ScriptCommand::scriptHost).
    std::function<ScriptOutputEncoding(std::u16string_view scriptHost)> GetScriptOutputEncoding;

    /// The text of printed bytes that are not UTF-8. On Windows they are in the console's code page (OEM). On Linux
    /// there is only UTF-8, and each ill-formed sequence becomes U+FFFD.
    std::function<std::u16string(std::string_view bytes)> WideFromConsoleBytes;

    /// Starts a process from a command line that ComposeScriptLine made. It has no window and inherits nothing. Its
    /// working directory is the one given, or this process's own when that is empty. All that it starts belongs to it
    /// and ends with TerminateProcess, or when this process ends before it, in whichever way. fileNameTooLong for a
    /// line longer than the interpreter takes: 8,191 characters on Windows, 128 KiB on Linux.
    std::function<Error(std::u16string_view commandLine, std::u16string_view workingDirectory, ProcessHandle& process)>
        CreateProcessW;

    // The three below give invalidHandle for handle 0.

    /// Waits for the process itself to end: success, waitTimeout when the time ran out, else why the wait failed.
    std::function<Error(ProcessHandle process, std::uint32_t milliseconds)> WaitForSingleObject;

    /// The exit code of a process that has ended; busy while it still runs.
    std::function<Error(ProcessHandle process, std::uint32_t& exitCode)> GetExitCodeProcess;

    /// Ends the process and everything it has started, at once.
    std::function<Error(ProcessHandle process)> TerminateProcess;

    /// Lets a process that still runs go on. Does nothing for 0.
    std::function<void(ProcessHandle process)> CloseProcess;

    /// The number by which the system knows this process.
    std::function<std::uint32_t()> GetCurrentProcessId;

    /// The name of the program that a process of any user runs, without directory and ".exe", in 15 characters at most.
    /// fileNotFound when no process has that number, or it has ended and only waits to be asked for; accessDenied where
    /// the system does not say.
    std::function<Error(std::uint32_t processId, std::u16string& name)> GetProcessName;
};

inline const ProcessOperations& Processes() { return CurrentOperations<ProcessOperations>(); }

inline void CloseStartedProcess(ProcessHandle process) { Processes().CloseProcess(process); }
using OwnedProcess = OwnedHandle<ProcessHandle, CloseStartedProcess>;

}  // namespace platform

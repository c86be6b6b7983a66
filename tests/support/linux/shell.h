// Runs commands of the shell.
#pragma once

#include <array>
#include <cstdio>
#include <string>
#include <sys/wait.h>

namespace kv::test {

struct ShellOutcome {
    int exitCode = -1;   // from 128 on: a signal
    std::string output;  // without line ends at its end
};

/// Runs a command line and collects its standard output.
inline ShellOutcome RunShell(const std::string& commandLine) {
    ShellOutcome outcome;
    FILE* const pipe = popen(commandLine.c_str(), "re");
    if (pipe == nullptr) return outcome;
    std::array<char, 4096> buffer;
    while (const std::size_t size = std::fread(buffer.data(), 1, buffer.size(), pipe))
        outcome.output.append(buffer.data(), size);
    while (outcome.output.ends_with('\n')) outcome.output.pop_back();
    const int status = pclose(pipe);
    outcome.exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    return outcome;
}

}  // namespace kv::test

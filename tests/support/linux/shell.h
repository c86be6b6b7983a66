// What commands of the shell print, and how they end.
#pragma once

#include <array>
#include <cstdio>
#include <string>
#include <sys/wait.h>

namespace kv::test {

struct ShellOutcome {
    int exitCode = -1;   // 128 and more: a signal
    std::string output;  // without the last line ends
};

/// Runs a command line, and takes what it prints on its standard output.
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

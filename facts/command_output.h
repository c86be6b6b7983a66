// What a program prints, for facts that only a program can tell.
#pragma once

#include <chrono>
#include <cstddef>
#include <string>
#include <vector>

namespace kv::facts {

struct CommandOutput {
    int failure = 0;        // an errno value: it could not be started; ETIMEDOUT, EFBIG: a limit was reached
    int exitCode = -1;      // from 128 on: ended by a signal
    std::string output;     // what came up to a limit
    std::string complaint;  // the start of what it printed as errors
};

struct CommandLimits {
    std::chrono::milliseconds time;
    std::size_t bytes;
};

/// Runs a program without a shell, in the language "C" and with nothing to read. words: its path and its arguments. At
/// a limit it is ended, with all of its process group; the program itself also ends with this process. Blocks until
/// then; any thread may call it.
CommandOutput RunCommand(const std::vector<std::string>& words, const CommandLimits& limits);

}  // namespace kv::facts

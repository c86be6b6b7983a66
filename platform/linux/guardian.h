// The process between this one and a script's shell. Whatever the script starts stays below it. It ends all of that
// when it is told to, and when this process ends, in whichever way.
#pragma once

#include <sys/types.h>

namespace platform {

/// Descriptors of a guardian: 0 to 2 are its streams, and these two follow. Those of a launch lie above them.
inline constexpr int reportDescriptor = 3;
inline constexpr int lifelineDescriptor = 4;

/// Exit codes of a guardian that was told to end everything: all is gone, or something is left that runs as a user whom
/// it may not signal.
inline constexpr int allEnded = 137;
inline constexpr int somethingLeft = 138;

/// Everything that a guardian needs, made ready before the fork: after it only system calls are allowed, because
/// another thread may have held any lock at that moment.
struct Launch {
    const char* directory = nullptr;  // of the shell; null: this process's own
    const char* line = nullptr;
    int report = -1;    // a failed start is written here as an errno value; closed when the shell runs
    int lifeline = -1;  // the reading end of a pipe whose writing end this process holds
};

/// What a new child runs, forked with all signals blocked: it starts "/bin/sh -c line" and ends with the shell's exit
/// code, or 128 plus the signal. When the lifeline's other end is closed, it kills the shell and all its descendants,
/// whatever session or group they have moved to and whatever signals they ignore, and ends when they are gone.
[[noreturn]] void BecomeGuardian(const Launch& launch);

}  // namespace platform

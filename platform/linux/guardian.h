// The process between this one and a script's shell. Whatever the script starts stays below it and ends with it, and
// it ends all of that when this process ends, in whichever way.
#pragma once

#include <sys/types.h>

namespace platform {

/// Descriptors of a guardian: 0 to 2 are its streams, and these two follow. Those of a launch lie above them.
inline constexpr int reportDescriptor = 3;
inline constexpr int lifelineDescriptor = 4;

/// How a guardian ends that was told to end everything: with all of it gone, or with something left that runs as a user
/// whom it may not signal.
inline constexpr int allEnded = 137;
inline constexpr int somethingLeft = 138;

/// Everything that a guardian needs, made ready before it is forked: behind the fork only system calls are allowed, as
/// another thread may have held any lock at that moment.
struct Launch {
    const char* directory = nullptr;  // of the shell; null: this process's own
    const char* line = nullptr;
    int report = -1;    // a failed start is written here as an errno value; closed when the shell runs
    int lifeline = -1;  // the reading end of a pipe whose writing end this process holds
};

/// What a new child runs, forked with all signals blocked: it starts "/bin/sh -c line" and ends with its exit code, 128
/// and more for a signal. When the lifeline's other end is closed it kills the shell and all that descends from it,
/// whatever session or group that has moved to and whatever signals it ignores, and ends when it is gone.
[[noreturn]] void BecomeGuardian(const Launch& launch);

}  // namespace platform

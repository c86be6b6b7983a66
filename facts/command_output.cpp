#include "facts/command_output.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

#include "platform/linux/descriptor.h"
#include "platform/linux/system_file.h"

namespace kv::facts {

namespace {

using Clock = std::chrono::steady_clock;
using platform::Descriptor;

/// Enough for a program's reason.
constexpr std::size_t maxComplaint = 1024;

struct Pipe {
    Descriptor reading, writing;
};

bool OpenPipe(Pipe& pipe) {
    std::array<int, 2> ends{};
    if (pipe2(ends.data(), O_CLOEXEC) != 0) return false;
    pipe = {Descriptor(ends[0]), Descriptor(ends[1])};
    return true;
}

/// How a child is to be started. A group of its own, so that it can be ended with all that it starts; no signal blocked
/// or ignored, whatever this thread has set.
struct Start {
    posix_spawn_file_actions_t actions{};
    posix_spawnattr_t attributes{};

    Start(int output, int errors) {
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
        posix_spawn_file_actions_adddup2(&actions, output, STDOUT_FILENO);
        posix_spawn_file_actions_adddup2(&actions, errors, STDERR_FILENO);
        posix_spawnattr_init(&attributes);
        sigset_t signals;
        sigemptyset(&signals);
        posix_spawnattr_setsigmask(&attributes, &signals);
        sigfillset(&signals);
        posix_spawnattr_setsigdefault(&attributes, &signals);
        posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETPGROUP | POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
    }
    ~Start() {
        posix_spawnattr_destroy(&attributes);
        posix_spawn_file_actions_destroy(&actions);
    }
    Start(const Start&) = delete;
    Start& operator=(const Start&) = delete;
};

/// 0, or an errno value.
int StartChild(const std::vector<std::string>& words, const Start& start, pid_t& child) {
    std::vector<char*> arguments;
    arguments.reserve(words.size() + 1);
    for (const std::string& word : words) arguments.push_back(const_cast<char*>(word.c_str()));
    arguments.push_back(nullptr);
    char language[] = "LC_ALL=C";
    char path[] = "PATH=/usr/sbin:/usr/bin:/sbin:/bin";
    const std::array<char*, 3> environment{language, path, nullptr};
    return posix_spawn(&child, arguments[0], &start.actions, &start.attributes, arguments.data(), environment.data());
}

int MillisecondsUntil(Clock::time_point deadline) {
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now()).count();
    return static_cast<int>(std::max<decltype(left)>(left, 0));
}

/// Takes what a pipe holds; closes it at its end.
void Drain(Descriptor& pipe, std::string& text) {
    std::array<char, 65536> block{};
    const ssize_t got = platform::ReadOnce(pipe.get(), block.data(), block.size());
    if (got > 0) text.append(block.data(), static_cast<std::size_t>(got));
    if (got <= 0) pipe.Close();
}

/// Reads both pipes to their ends. An errno value if a limit is reached first.
int ReadAll(Descriptor& output, Descriptor& errors, const CommandLimits& limits, Clock::time_point deadline,
            CommandOutput& outcome) {
    while (output || errors) {
        std::array<pollfd, 2> ready{{{output.get(), POLLIN, 0}, {errors.get(), POLLIN, 0}}};  // one below 0 is skipped
        const int count = poll(ready.data(), ready.size(), MillisecondsUntil(deadline));
        if (count < 0 && errno != EINTR) return errno;
        if (count == 0) return ETIMEDOUT;
        if (count > 0 && ready[0].revents != 0) Drain(output, outcome.output);
        if (count > 0 && ready[1].revents != 0) Drain(errors, outcome.complaint);
        if (outcome.complaint.size() > maxComplaint) outcome.complaint.resize(maxComplaint);
        if (outcome.output.size() > limits.bytes) {
            outcome.output.resize(limits.bytes);
            return EFBIG;
        }
    }
    return 0;
}

/// Waits for the child, which ends soon after it has closed its output, and ends it at the deadline.
int WaitFor(pid_t child, bool isToEnd, Clock::time_point deadline) {
    int status = 0;
    while (!isToEnd && waitpid(child, &status, WNOHANG) == 0) {
        isToEnd = Clock::now() >= deadline;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    if (isToEnd) {
        kill(-child, SIGKILL);
        while (waitpid(child, &status, 0) < 0 && errno == EINTR) {
        }
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

}  // namespace

CommandOutput RunCommand(const std::vector<std::string>& words, const CommandLimits& limits) {
    CommandOutput outcome;
    Pipe output;
    Pipe errors;
    pid_t child = 0;
    if (!OpenPipe(output) || !OpenPipe(errors)) {
        outcome.failure = errno;
        return outcome;
    }
    outcome.failure = StartChild(words, Start(output.writing.get(), errors.writing.get()), child);
    if (outcome.failure != 0) return outcome;
    output.writing.Close();
    errors.writing.Close();
    const Clock::time_point deadline = Clock::now() + limits.time;
    outcome.failure = ReadAll(output.reading, errors.reading, limits, deadline, outcome);
    outcome.exitCode = WaitFor(child, outcome.failure != 0, deadline);
    return outcome;
}

}  // namespace kv::facts

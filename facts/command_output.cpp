#include "facts/command_output.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <poll.h>
#include <sys/prctl.h>
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

/// Everything that a child needs, made ready before the fork: after it only system calls are allowed, because another
/// thread may have held any lock at that moment.
struct Start {
    std::vector<char*> arguments;
    std::array<char*, 3> environment;
    int output, errors;  // where it prints
    int report;          // a failed start is written here as an errno value; closed when the program runs
    pid_t parent;
};

/// What a new child runs, forked with all signals blocked. It has a group of its own, so that it can be ended with all
/// that it starts, and ends with the thread that waits for it. No signal stays blocked or ignored.
[[noreturn]] void BecomeProgram(const Start& start) {
    setpgid(0, 0);
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (getppid() != start.parent) _exit(EXIT_FAILURE);
    struct sigaction usual {};
    usual.sa_handler = SIG_DFL;
    for (int number = 1; number < NSIG; ++number) sigaction(number, &usual, nullptr);
    const int nothing = open("/dev/null", O_RDONLY | O_CLOEXEC);
    if (dup2(nothing, STDIN_FILENO) >= 0 && dup2(start.output, STDOUT_FILENO) >= 0 &&
        dup2(start.errors, STDERR_FILENO) >= 0) {
        sigset_t signals;
        sigemptyset(&signals);
        sigprocmask(SIG_SETMASK, &signals, nullptr);
        execve(start.arguments[0], start.arguments.data(), start.environment.data());
    }
    const int failure = errno;
    static_cast<void>(!write(start.report, &failure, sizeof failure));
    _exit(EXIT_FAILURE);
}

pid_t ForkProgram(const Start& start) {
    sigset_t all;
    sigset_t former;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &former);
    const pid_t child = fork();
    if (child == 0) BecomeProgram(start);
    const int failure = errno;
    pthread_sigmask(SIG_SETMASK, &former, nullptr);
    errno = failure;
    return child;
}

/// A child, which is ended with its group at the end of the scope, unless it has been waited for.
class Child {
  public:
    Child() = default;
    ~Child() {
        if (id_ > 0) WaitUntil({}, true);
    }
    Child(const Child&) = delete;
    Child& operator=(const Child&) = delete;

    /// 0, or an errno value.
    int Run(const std::vector<std::string>& words, int output, int errors) {
        Pipe report;
        if (!OpenPipe(report)) return errno;
        char language[] = "LC_ALL=C";
        char path[] = "PATH=/usr/sbin:/usr/bin:/sbin:/bin";
        Start start{{}, {language, path, nullptr}, output, errors, report.writing.get(), getpid()};
        for (const std::string& word : words) start.arguments.push_back(const_cast<char*>(word.c_str()));
        start.arguments.push_back(nullptr);
        id_ = ForkProgram(start);
        if (id_ < 0) return errno;
        report.writing.Close();
        int failure = 0;
        if (platform::ReadOnce(report.reading.get(), reinterpret_cast<char*>(&failure), sizeof failure) > 0)
            WaitUntil({}, true);
        return failure;
    }

    /// Waits for its end, which comes soon after it has closed its output, and ends it at the deadline, or now. Its
    /// exit code, or 128 plus the signal.
    int WaitUntil(Clock::time_point deadline, bool isToEnd) {
        int status = 0;
        while (!isToEnd && waitpid(id_, &status, WNOHANG) == 0) {
            isToEnd = Clock::now() >= deadline;
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
        if (isToEnd) {
            kill(-id_, SIGKILL);
            while (waitpid(id_, &status, 0) < 0 && errno == EINTR) {
            }
        }
        id_ = 0;
        return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    }

  private:
    pid_t id_ = 0;
};

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

}  // namespace

CommandOutput RunCommand(const std::vector<std::string>& words, const CommandLimits& limits) {
    CommandOutput outcome;
    Pipe output;
    Pipe errors;
    Child child;
    if (!OpenPipe(output) || !OpenPipe(errors)) {
        outcome.failure = errno;
        return outcome;
    }
    outcome.failure = child.Run(words, output.writing.get(), errors.writing.get());
    if (outcome.failure != 0) return outcome;
    output.writing.Close();
    errors.writing.Close();
    const Clock::time_point deadline = Clock::now() + limits.time;
    outcome.failure = ReadAll(output.reading, errors.reading, limits, deadline, outcome);
    outcome.exitCode = child.WaitUntil(deadline, outcome.failure != 0);
    return outcome;
}

}  // namespace kv::facts

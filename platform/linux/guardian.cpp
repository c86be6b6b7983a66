// Nothing here may take a lock or memory: this is the copy of a process with other threads.
#include "platform/linux/guardian.h"

#include <array>
#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/signalfd.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

namespace platform {

namespace {

/// The exit code for a program that cannot be run, as shells give it.
constexpr int cannotRun = 127;
constexpr int endedBySignal = 128;  // plus the signal

/// Between two looks for children; a killed child takes a moment to go.
constexpr long lookIntervalNanoseconds = 1'000'000;

/// After so many looks in a row that find nobody to kill, what is left stays.
constexpr int mostVainLooks = 100;

[[noreturn]] void ReportFailure() {
    const int code = errno;
    // Nobody is left to tell when this fails too.
    [[maybe_unused]] const ssize_t written = write(reportDescriptor, &code, sizeof code);
    _exit(cannotRun);
}

void RestoreSignalActions() {
    for (int number = 1; number < NSIG; ++number) std::signal(number, SIG_DFL);
}

bool ConnectStreamsToNothing() {
    const int nothing = open("/dev/null", O_RDWR);
    if (nothing < 0) return false;
    for (int stream = 0; stream <= 2; ++stream) {
        if (dup2(nothing, stream) < 0) return false;
    }
    return nothing <= lifelineDescriptor || close(nothing) == 0;
}

[[noreturn]] void BecomeShell(const Launch& launch, pid_t guardian) {
    setpgid(0, 0);
    // Somebody may kill the guardian, too.
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (getppid() != guardian) _exit(cannotRun);
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
    if (launch.directory == nullptr || chdir(launch.directory) == 0)
        execl("/bin/sh", "sh", "-c", launch.line, static_cast<char*>(nullptr));
    ReportFailure();
}

/// A descriptor that reports ended children, or -1.
int OpenEndsOfChildren() {
    sigset_t child;
    sigemptyset(&child);
    sigaddset(&child, SIGCHLD);
    return signalfd(-1, &child, SFD_CLOEXEC | SFD_NONBLOCK);
}

/// Kills a child and the group that it may lead. False when it may not be signalled.
bool Kill(pid_t child) {
    kill(-child, SIGKILL);
    return kill(child, SIGKILL) == 0 || errno != EPERM;
}

/// Kills each child that this process has at the moment; returns how many could be killed.
int KillChildren() {
    const int children = open("/proc/thread-self/children", O_RDONLY | O_CLOEXEC);
    std::array<char, 4096> text;
    pid_t id = 0;
    int killed = 0;
    for (ssize_t size = 0; (size = read(children, text.data(), text.size())) > 0;) {
        for (ssize_t at = 0; at < size; ++at) {
            const char character = text[static_cast<std::size_t>(at)];
            if (character >= '0' && character <= '9') {
                id = id * 10 + (character - '0');
            } else if (id != 0) {
                killed += Kill(id) ? 1 : 0;
                id = 0;
            }
        }
    }
    close(children);
    return killed;
}

/// Children of a killed process become children of this one, so in the end all of them turn up.
[[noreturn]] void EndAll(pid_t shell) {
    Kill(shell);
    for (int vain = 0; vain < mostVainLooks;) {
        vain = KillChildren() > 0 ? 0 : vain + 1;
        pid_t ended = 0;
        do ended = waitpid(-1, nullptr, WNOHANG);
        while (ended > 0);
        if (ended < 0) _exit(allEnded);
        const timespec interval{0, lookIntervalNanoseconds};
        nanosleep(&interval, nullptr);
    }
    _exit(somethingLeft);
}

/// Ends as the shell has, if it has.
void ReapChildren(pid_t shell) {
    int status = 0;
    for (pid_t ended = 0; (ended = waitpid(-1, &status, WNOHANG)) > 0;) {
        if (ended == shell) _exit(WIFEXITED(status) ? WEXITSTATUS(status) : endedBySignal + WTERMSIG(status));
    }
}

[[noreturn]] void Guard(pid_t shell, int endsOfChildren) {
    std::array<pollfd, 2> watched{{{lifelineDescriptor, POLLIN, 0}, {endsOfChildren, POLLIN, 0}}};
    for (;;) {
        poll(watched.data(), watched.size(), -1);
        if (watched[0].revents != 0) EndAll(shell);
        signalfd_siginfo taken;
        while (read(endsOfChildren, &taken, sizeof taken) > 0) continue;
        ReapChildren(shell);
    }
}

}  // namespace

void BecomeGuardian(const Launch& launch) {
    RestoreSignalActions();
    setpgid(0, 0);
    // So that ending the agent by its name does not end this.
    prctl(PR_SET_NAME, "script-guardian");
    prctl(PR_SET_CHILD_SUBREAPER, 1);
    if (dup3(launch.report, reportDescriptor, O_CLOEXEC) < 0) _exit(cannotRun);
    if (dup3(launch.lifeline, lifelineDescriptor, O_CLOEXEC) < 0 || !ConnectStreamsToNothing()) ReportFailure();
    closefrom(lifelineDescriptor + 1);
    const int endsOfChildren = OpenEndsOfChildren();
    if (endsOfChildren < 0) ReportFailure();
    const pid_t guardian = getpid();
    // Not fork, because that calls what libraries have registered for it.
    const pid_t shell = _Fork();
    if (shell == 0) BecomeShell(launch, guardian);
    if (shell < 0) ReportFailure();
    close(reportDescriptor);
    // So that a process which only waits does not keep a file system in use.
    [[maybe_unused]] const int moved = chdir("/");
    Guard(shell, endsOfChildren);
}

}  // namespace platform

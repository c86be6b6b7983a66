// Children are started by fork and exec rather than posix_spawn for one step in between that posix_spawn does not have:
// the child is made the process that orphans below it fall to. So whatever it starts stays below it as long as it
// lives, and TerminateProcess finds all of it.
#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <climits>
#include <csignal>
#include <fcntl.h>
#include <memory>
#include <mutex>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

#include "platform/posix/posix.h"
#include "platform/posix/process_tree.h"
#include "platform/posix/script_line.h"
#include "platform/utf.h"

namespace platform {

namespace {

using SteadyClock = std::chrono::steady_clock;

/// How long TerminateProcess waits for a killed process to be gone.
constexpr std::uint32_t killedWithinMilliseconds = 1000;

/// How often the end of a process is looked for where the kernel has no descriptor that tells of it.
constexpr std::int64_t lookIntervalMilliseconds = 10;

/// Descriptors in a new child: 0 to 2 are its streams, this one reports a failed start and closes at exec.
constexpr int reportDescriptor = 3;

struct Child {
    pid_t id = 0;
    int descriptor = -1;  // pidfd, or -1
};

Child& ChildOf(ProcessHandle process) { return *reinterpret_cast<Child*>(process); }

/// Children whose handles were closed before they ended; each is reaped at the next start or close after its end.
struct Unreaped {
    std::mutex lock;
    std::vector<pid_t> children;
};

Unreaped& LeftRunning() {
    static auto* const unreaped = new Unreaped;
    return *unreaped;
}

void ReapEnded() {
    const std::lock_guard hold(LeftRunning().lock);
    std::erase_if(LeftRunning().children, [](pid_t child) { return waitpid(child, nullptr, WNOHANG) != 0; });
}

/// Everything that a new child needs, made ready before the fork: after it only system calls are allowed, as another
/// thread may have held any lock at that moment.
struct Launch {
    const char* directory = nullptr;  // none: stay
    const char* line = nullptr;
    int report = -1;  // a failed start is written here as an errno value
    pid_t parent = getpid();
};

void RestoreSignals() {
    for (int number = 1; number < NSIG; ++number) std::signal(number, SIG_DFL);
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
}

bool ConnectStreamsToNothing() {
    const int nothing = open("/dev/null", O_RDWR);
    if (nothing < 0) return false;
    for (int stream = 0; stream <= 2; ++stream) {
        if (dup2(nothing, stream) < 0) return false;
    }
    return true;
}

/// The new child's way from fork to exec.
[[noreturn]] void BecomeShell(const Launch& launch) {
    RestoreSignals();
    setpgid(0, 0);
    prctl(PR_SET_CHILD_SUBREAPER, 1);
    // Without this process nobody would end the child at its limit.
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (getppid() != launch.parent || dup3(launch.report, reportDescriptor, O_CLOEXEC) < 0) _exit(127);
    if (ConnectStreamsToNothing() && (launch.directory == nullptr || chdir(launch.directory) == 0)) {
        closefrom(reportDescriptor + 1);
        execl("/bin/sh", "sh", "-c", launch.line, static_cast<char*>(nullptr));
    }
    const int code = errno;
    // Nobody is left to tell when this fails too; the exit code is what a shell gives for a program it cannot run.
    [[maybe_unused]] const ssize_t written = write(reportDescriptor, &code, sizeof code);
    _exit(127);
}

/// Forks with all signals blocked, so that no handler of this process runs in the child.
pid_t ForkShell(const Launch& launch) {
    sigset_t all;
    sigset_t former;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &former);
    const pid_t child = fork();
    if (child == 0) BecomeShell(launch);
    const int code = errno;
    pthread_sigmask(SIG_SETMASK, &former, nullptr);
    errno = code;
    return child;
}

/// A pipe whose writing end stands above the descriptors that a new child gives away.
struct ReportPipe {
    int reading = -1;
    int writing = -1;

    ReportPipe() {
        std::array<int, 2> ends{-1, -1};
        if (pipe2(ends.data(), O_CLOEXEC) != 0) return;
        reading = ends[0];
        writing = fcntl(ends[1], F_DUPFD_CLOEXEC, reportDescriptor + 1);
        close(ends[1]);
    }
    ~ReportPipe() {
        if (reading >= 0) close(reading);
        CloseWriting();
    }
    ReportPipe(const ReportPipe&) = delete;
    ReportPipe& operator=(const ReportPipe&) = delete;

    void CloseWriting() {
        if (writing >= 0) close(writing);
        writing = -1;
    }

    /// What the child wrote, or 0 once its exec has closed the pipe.
    int Read() const {
        int code = 0;
        ssize_t count = 0;
        do count = read(reading, &code, sizeof code);
        while (count < 0 && errno == EINTR);
        return count == sizeof code ? code : 0;
    }
};

Error StartShell(Launch launch, pid_t& child) {
    ReportPipe report;
    if (report.writing < 0) return ErrorFromErrno(errno);
    launch.report = report.writing;
    child = ForkShell(launch);
    if (child < 0) return errno == EAGAIN ? error::notEnoughMemory : ErrorFromErrno(errno);
    report.CloseWriting();
    const int code = report.Read();
    if (code != 0) waitpid(child, nullptr, 0);
    return ErrorFromErrno(code);
}

Error CreateProcessW(std::u16string_view commandLine, std::u16string_view workingDirectory, ProcessHandle& process) {
    process = 0;
    ReapEnded();
    const std::string line = Utf8FromWide(commandLine);
    const std::string directory = NativePathOf(workingDirectory);
    struct stat status {};
    if (!directory.empty() && (stat(directory.c_str(), &status) != 0 || !S_ISDIR(status.st_mode))) {
        return error::directoryName;
    }
    auto child = std::make_unique<Child>();
    const Launch launch{.directory = directory.empty() ? nullptr : directory.c_str(), .line = line.c_str()};
    if (const Error failure = StartShell(launch, child->id); failure != 0) return failure;
    child->descriptor = static_cast<int>(syscall(SYS_pidfd_open, child->id, 0));
    process = reinterpret_cast<ProcessHandle>(child.release());
    return error::success;
}

/// How a child ended, which leaves it to be reaped; si_pid stays 0 while it runs.
Error PeekAtEnd(const Child& child, siginfo_t& end) {
    end = {};
    const int result = waitid(P_PID, static_cast<id_t>(child.id), &end, WEXITED | WNOHANG | WNOWAIT);
    return result != 0 ? ErrorFromErrno(errno) : error::success;
}

Error WaitForSingleObject(ProcessHandle process, std::uint32_t milliseconds) {
    const Child& child = ChildOf(process);
    const auto deadline = SteadyClock::now() + std::chrono::milliseconds(milliseconds);
    for (;;) {
        siginfo_t end;
        if (const Error failure = PeekAtEnd(child, end); failure != 0) return failure;
        if (end.si_pid != 0) return error::success;
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - SteadyClock::now()).count();
        if (left <= 0) return error::waitTimeout;
        pollfd watched{child.descriptor, POLLIN, 0};
        const std::int64_t longest = child.descriptor >= 0 ? INT_MAX : lookIntervalMilliseconds;
        poll(&watched, 1, static_cast<int>(std::min<std::int64_t>(left, longest)));
    }
}

Error GetExitCodeProcess(ProcessHandle process, std::uint32_t& exitCode) {
    siginfo_t end;
    if (const Error failure = PeekAtEnd(ChildOf(process), end); failure != 0) return failure;
    if (end.si_pid == 0) return error::busy;
    const int code = end.si_code == CLD_EXITED ? end.si_status : 128 + end.si_status;
    exitCode = static_cast<std::uint32_t>(code);
    return error::success;
}

Error TerminateProcess(ProcessHandle process) {
    const Error failure = KillProcessTree(ChildOf(process).id);
    WaitForSingleObject(process, killedWithinMilliseconds);
    return failure;
}

void CloseProcess(ProcessHandle process) {
    if (process == 0) return;
    const std::unique_ptr<Child> child(&ChildOf(process));
    if (child->descriptor >= 0) close(child->descriptor);
    {
        const std::lock_guard hold(LeftRunning().lock);
        LeftRunning().children.push_back(child->id);
    }
    ReapEnded();
}

}  // namespace

ProcessOperations PosixProcesses() {
    return {
        .ComposeScriptLine = ComposeScriptLine,
        .GetScriptOutputEncoding = GetScriptOutputEncoding,
        .CreateProcessW = CreateProcessW,
        .WaitForSingleObject = WaitForSingleObject,
        .GetExitCodeProcess = GetExitCodeProcess,
        .TerminateProcess = TerminateProcess,
        .CloseProcess = CloseProcess,
    };
}

}  // namespace platform

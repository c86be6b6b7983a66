// A child is a guardian. It starts the shell, keeps all that the shell starts below itself, and ends all of it when its
// lifeline is closed: by TerminateProcess, or by the end of this process.
#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <climits>
#include <csignal>
#include <fcntl.h>
#include <list>
#include <mutex>
#include <optional>
#include <poll.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>
#include <utility>

#include "platform/guarded.h"
#include "platform/linux/descriptor.h"
#include "platform/linux/guardian.h"
#include "platform/linux/linux.h"
#include "platform/linux/script_line.h"
#include "platform/linux/system_file.h"
#include "platform/utf.h"

namespace platform {

namespace {

using SteadyClock = std::chrono::steady_clock;

/// How long TerminateProcess waits for everything that it kills to be gone.
constexpr std::uint32_t killedWithinMilliseconds = 2000;

/// How often to look for the end of a process when the kernel has no descriptor for it.
constexpr std::int64_t lookIntervalMilliseconds = 10;

/// A pipe whose ends are above the descriptors that a guardian uses for fixed purposes.
struct Pipe {
    Descriptor reading;
    Descriptor writing;

    bool Open() {
        std::array<int, 2> ends{-1, -1};
        if (pipe2(ends.data(), O_CLOEXEC) != 0) return false;
        const Descriptor first(ends[0]);
        const Descriptor second(ends[1]);
        reading = Descriptor(fcntl(ends[0], F_DUPFD_CLOEXEC, lifelineDescriptor + 1));
        writing = Descriptor(fcntl(ends[1], F_DUPFD_CLOEXEC, lifelineDescriptor + 1));
        return reading && writing;
    }
};

struct Child {
    pid_t id = 0;
    Descriptor end;         // pidfd; -1 on kernels that have none
    Descriptor lifeline;    // while it is open, the child need not end
    bool isClosed = false;  // its handle; guarded by the lock of all children
};

Child& ChildOf(ProcessHandle process) { return *reinterpret_cast<Child*>(process); }

/// All children that are not reaped. One whose handle was closed is reaped at the next start or close after its end.
struct Children {
    std::mutex lock;
    std::list<Child> all;
};

/// Never freed: another thread may still start or close a child while the process ends.
Children& Unreaped() {
    static auto* const children = new Children;
    return *children;
}

void ReapEnded() {
    const std::lock_guard hold(Unreaped().lock);
    Unreaped().all.remove_if(
        [](const Child& child) { return child.isClosed && waitpid(child.id, nullptr, WNOHANG) != 0; });
}

/// Forks with all signals blocked, so that no handler of this process runs in the child.
pid_t ForkGuardian(const Launch& launch) {
    sigset_t all;
    sigset_t former;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &former);
    const pid_t child = fork();
    if (child == 0) BecomeGuardian(launch);
    const int code = errno;
    pthread_sigmask(SIG_SETMASK, &former, nullptr);
    errno = code;
    return child;
}

/// The errno value that a child wrote, or 0 once its shell's exec has closed the pipe.
int ReadReport(const Descriptor& report) {
    int code = 0;
    ssize_t count = 0;
    do count = read(report.get(), &code, sizeof code);
    while (count < 0 && errno == EINTR);
    return count == sizeof code ? code : 0;
}

/// 0, or an errno value.
int StartGuardian(Launch launch, Child& child) {
    Pipe report;
    Pipe lifeline;
    if (!report.Open() || !lifeline.Open()) return errno;
    launch.report = report.writing.get();
    launch.lifeline = lifeline.reading.get();
    child.id = ForkGuardian(launch);
    if (child.id < 0) return errno;
    report.writing = Descriptor();
    const int code = ReadReport(report.reading);
    if (code != 0) waitpid(child.id, nullptr, 0);
    child.lifeline = std::move(lifeline.writing);
    return code;
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
    std::list<Child> started(1);
    Child& child = started.front();
    const Launch launch{.directory = directory.empty() ? nullptr : directory.c_str(), .line = line.c_str()};
    if (const int code = StartGuardian(launch, child)) {
        return code == EAGAIN ? error::notEnoughMemory : ErrorFromErrno(code);
    }
    child.end = Descriptor(static_cast<int>(syscall(SYS_pidfd_open, child.id, 0)));
    const std::lock_guard hold(Unreaped().lock);
    Unreaped().all.splice(Unreaped().all.end(), started);
    process = reinterpret_cast<ProcessHandle>(&child);
    return error::success;
}

/// How a child ended, without reaping it; si_pid is 0 while it runs.
Error PeekAtEnd(const Child& child, siginfo_t& end) {
    end = {};
    const int result = waitid(P_PID, static_cast<id_t>(child.id), &end, WEXITED | WNOHANG | WNOWAIT);
    return result != 0 ? ErrorFromErrno(errno) : error::success;
}

Error WaitForSingleObject(ProcessHandle process, std::uint32_t milliseconds) {
    if (process == 0) return error::invalidHandle;
    const Child& child = ChildOf(process);
    const auto deadline = SteadyClock::now() + std::chrono::milliseconds(milliseconds);
    for (;;) {
        siginfo_t end;
        if (const Error failure = PeekAtEnd(child, end); failure != 0) return failure;
        if (end.si_pid != 0) return error::success;
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - SteadyClock::now()).count();
        if (left <= 0) return error::waitTimeout;
        pollfd watched{child.end.get(), POLLIN, 0};
        const std::int64_t longest = child.end ? INT_MAX : lookIntervalMilliseconds;
        poll(&watched, 1, static_cast<int>(std::min<std::int64_t>(left, longest)));
    }
}

Error GetExitCodeProcess(ProcessHandle process, std::uint32_t& exitCode) {
    if (process == 0) return error::invalidHandle;
    siginfo_t end;
    if (const Error failure = PeekAtEnd(ChildOf(process), end); failure != 0) return failure;
    if (end.si_pid == 0) return error::busy;
    const int code = end.si_code == CLD_EXITED ? end.si_status : 128 + end.si_status;
    exitCode = static_cast<std::uint32_t>(code);
    return error::success;
}

Error TerminateProcess(ProcessHandle process) {
    if (process == 0) return error::invalidHandle;
    Child& child = ChildOf(process);
    siginfo_t end;
    if (PeekAtEnd(child, end) == error::success && end.si_pid != 0) return error::success;
    child.lifeline = Descriptor();
    if (const Error failure = WaitForSingleObject(process, killedWithinMilliseconds)) return failure;
    std::uint32_t code = 0;
    const Error failure = GetExitCodeProcess(process, code);
    return failure == error::success && code == somethingLeft ? error::accessDenied : failure;
}

void CloseProcess(ProcessHandle process) {
    if (process == 0) return;
    {
        const std::lock_guard hold(Unreaped().lock);
        ChildOf(process).isClosed = true;
    }
    ReapEnded();
}

Error GetProcessName(std::uint32_t processId, std::u16string& name) {
    name.clear();
    // "1234 (name) S ...", where the name may hold anything.
    const std::optional<std::string> text = ReadSystemFile("/proc/" + std::to_string(processId) + "/stat");
    if (!text) return errno == ESRCH ? error::fileNotFound : ErrorFromErrno(errno);
    const std::size_t begin = text->find('(');
    const std::size_t end = text->rfind(") ");
    if (begin == text->npos || end == text->npos || end < begin) return error::invalidData;
    const std::string_view state = std::string_view(*text).substr(end + 2, 1);
    // A process that has ended stays until its parent asks for it; in a container nobody may.
    if (state == "Z" || state == "X") return error::fileNotFound;
    name = WideFromUtf8(std::string_view(*text).substr(begin + 1, end - begin - 1));
    return error::success;
}

}  // namespace

ProcessOperations LinuxProcesses() {
    return {
        .ComposeScriptLine = ComposeScriptLine,
        .GetScriptOutputEncoding = GetScriptOutputEncoding,
        .WideFromConsoleBytes = WideFromUtf8,
        .CreateProcessW = Guarded(CreateProcessW),
        .WaitForSingleObject = WaitForSingleObject,
        .GetExitCodeProcess = GetExitCodeProcess,
        .TerminateProcess = TerminateProcess,
        .CloseProcess = CloseProcess,
        .GetCurrentProcessId = [] { return static_cast<std::uint32_t>(getpid()); },
        .GetProcessName = Guarded(GetProcessName),
    };
}

}  // namespace platform

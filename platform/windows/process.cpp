// A child is put into a job before its first instruction, so that whatever it starts is in that job too and can be
// ended with it. The job also ends with this process, because then nobody would end the child at its time limit.
#include <algorithm>
#include <array>
#include <memory>

#include "platform/guarded.h"
#include "platform/windows/script_line.h"
#include "platform/windows/system_handle.h"
#include "platform/windows/win32.h"

namespace platform {

namespace {

/// The longest line that the command interpreter takes, in characters.
constexpr std::size_t longestLine = 8191;

/// How long TerminateProcess waits until a process that it has ended is gone.
constexpr DWORD goneWithin = 1000;  // milliseconds

struct Child {
    SystemHandle process;
    SystemHandle job;  // null when this process is in a job that lets nothing out, on systems without nested jobs
};

Child& ChildOf(ProcessHandle process) { return *reinterpret_cast<Child*>(process); }

/// With endWithJob the processes of a job end when its last handle is closed, with keepRunning they go on.
constexpr DWORD endWithJob = JOB_OBJECT_LIMIT_KILL_ON_JOB_CLOSE;
constexpr DWORD keepRunning = 0;

bool SetJobLimit(HANDLE job, DWORD limit) {
    JOBOBJECT_EXTENDED_LIMIT_INFORMATION limits{};
    limits.BasicLimitInformation.LimitFlags = limit;
    return ::SetInformationJobObject(job, JobObjectExtendedLimitInformation, &limits, sizeof limits) != FALSE;
}

SystemHandle JobOf(HANDLE process) {
    SystemHandle job(::CreateJobObjectW(nullptr, nullptr));
    if (!job || !SetJobLimit(job.get(), endWithJob) || !::AssignProcessToJobObject(job.get(), process)) return {};
    return job;
}

Error CreateProcessW(std::u16string_view commandLine, std::u16string_view workingDirectory, ProcessHandle& process) {
    process = 0;
    if (commandLine.size() > longestLine) return error::fileNameTooLong;
    std::wstring line = WideOf(commandLine);
    const std::wstring directory = NativePathOf(workingDirectory);
    STARTUPINFOW startup{};
    startup.cb = sizeof startup;
    PROCESS_INFORMATION started{};
    constexpr DWORD flags = CREATE_NO_WINDOW | CREATE_DEFAULT_ERROR_MODE | CREATE_SUSPENDED;
    auto child = std::make_unique<Child>();
    if (!::CreateProcessW(nullptr, line.data(), nullptr, nullptr, FALSE, flags, nullptr,
                          directory.empty() ? nullptr : directory.c_str(), &startup, &started))
        return LastError();
    child->process = SystemHandle(started.hProcess);
    const SystemHandle thread(started.hThread);
    child->job = JobOf(child->process.get());
    ::ResumeThread(thread.get());
    process = reinterpret_cast<ProcessHandle>(child.release());
    return error::success;
}

Error WaitForSingleObject(ProcessHandle process, std::uint32_t milliseconds) {
    if (process == 0) return error::invalidHandle;
    switch (::WaitForSingleObject(ChildOf(process).process.get(), milliseconds)) {
        case WAIT_OBJECT_0:
            return error::success;
        case WAIT_TIMEOUT:
            return error::waitTimeout;
        default:
            return LastError();
    }
}

Error GetExitCodeProcess(ProcessHandle process, std::uint32_t& exitCode) {
    const Error ended = WaitForSingleObject(process, 0);
    if (ended != error::success) return ended == error::waitTimeout ? error::busy : ended;
    DWORD code = 0;
    const Error result = ResultOf(::GetExitCodeProcess(ChildOf(process).process.get(), &code));
    exitCode = code;
    return result;
}

Error TerminateProcess(ProcessHandle process) {
    if (process == 0) return error::invalidHandle;
    const Child& child = ChildOf(process);
    const Error result =
        ResultOf(child.job ? ::TerminateJobObject(child.job.get(), 0) : ::TerminateProcess(child.process.get(), 0));
    WaitForSingleObject(process, goneWithin);
    return result;
}

/// What a script has left running goes on.
void CloseProcess(ProcessHandle process) {
    if (process == 0) return;
    const std::unique_ptr<Child> child(&ChildOf(process));
    if (child->job) SetJobLimit(child->job.get(), keepRunning);
}

Error GetProcessName(std::uint32_t processId, std::u16string& name) {
    name.clear();
    const SystemHandle process(::OpenProcess(PROCESS_QUERY_LIMITED_INFORMATION, FALSE, processId));
    if (!process) return ::GetLastError() == ERROR_INVALID_PARAMETER ? error::fileNotFound : LastError();
    DWORD exitCode = 0;
    if (::GetExitCodeProcess(process.get(), &exitCode) && exitCode != STILL_ACTIVE) return error::fileNotFound;
    std::array<wchar_t, 1024> path{};
    DWORD size = static_cast<DWORD>(path.size());
    if (!::QueryFullProcessImageNameW(process.get(), 0, path.data(), &size)) return LastError();
    name.assign(path.begin(), path.begin() + size);
    name.erase(0, name.rfind(u'\\') + 1);
    constexpr std::size_t longest = 15;
    name.resize(std::min({name.size(), name.rfind(u'.'), longest}));
    return error::success;
}

}  // namespace

ProcessOperations WindowsProcesses() {
    return {
        .ComposeScriptLine = ComposeScriptLine,
        .GetScriptOutputEncoding = GetScriptOutputEncoding,
        .WideFromConsoleBytes = WideFromConsoleBytes,
        .CreateProcessW = Guarded(CreateProcessW),
        .WaitForSingleObject = WaitForSingleObject,
        .GetExitCodeProcess = GetExitCodeProcess,
        .TerminateProcess = TerminateProcess,
        .CloseProcess = CloseProcess,
        .GetCurrentProcessId = [] { return std::uint32_t{::GetCurrentProcessId()}; },
        .GetProcessName = Guarded(GetProcessName),
    };
}

}  // namespace platform

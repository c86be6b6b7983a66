#include "collection/execute.h"

#include <algorithm>
#include <limits>
#include <string>

#include "foundation/log.h"
#include "foundation/open_file.h"
#include "foundation/system_error.h"
#include "platform/files.h"
#include "platform/process.h"
#include "platform/utf.h"

namespace kv {

namespace {

constexpr std::uint64_t millisecondsPerMinute = 60000;
constexpr std::size_t longestSavedDirectory = 260;

/// How often the output of a running process is measured.
constexpr std::uint32_t lookMilliseconds = 100;

/// How long the system gets to end a process that has been told to.
constexpr std::uint32_t endMilliseconds = 1000;

/// Leaves a text both in the log and in the remarks of the call.
template <class... Arguments>
void Remark(std::u16string& remarks, const char* format, const Arguments&... arguments) {
    Log1(format, arguments...);
    remarks = platform::WideFromUtf8(LogText(format, arguments...));
}

/// The working directory while this object lives. The former one comes back at its end.
class WorkingDirectory {
  public:
    WorkingDirectory() = default;
    ~WorkingDirectory() {
        if (saved_) platform::Files().wchdir(*saved_);
    }
    WorkingDirectory(const WorkingDirectory&) = delete;
    WorkingDirectory& operator=(const WorkingDirectory&) = delete;

    /// False when the present directory cannot be saved or the new one cannot be entered.
    bool Enter(const std::u16string& directory, std::u16string& remarks) {
        std::u16string current;
        if (platform::Files().wgetcwd(current) != 0) {
            Remark(remarks, "Failed to get the CurrentWorkingDirectory");
            return false;
        }
        if (current.size() > longestSavedDirectory || platform::Files().wchdir(directory) != 0) {
            Remark(remarks, "execute : Unable to go from the directory %s to %s \n", current, directory);
            return false;
        }
        saved_ = current;
        return true;
    }

  private:
    OptionalText saved_;
};

/// 0 is done; 1641 and 3010 are an installer's codes for done, with a restart of the computer under way or due.
bool CountsAsSuccess(std::uint32_t exitCode) { return exitCode == 0 || exitCode == 1641 || exitCode == 3010; }

int ResultOfEndedProcess(platform::ProcessHandle process, std::u16string& remarks) {
    std::uint32_t exitCode = 0;
    const platform::Error error = platform::Processes().GetExitCodeProcess(process, exitCode);
    if (error != platform::error::success) {
        Remark(remarks, "execute : Unable to read the exit code, error %d \n", error);
        return 0;
    }
    Remark(remarks, "Error Code : %d \n", exitCode);
    return CountsAsSuccess(exitCode) ? 1 : 0;
}

bool IsExceeded(const OutputBound& bound) {
    OpenFile output;
    std::uint64_t size = 0;
    return output.Open(bound.path, platform::FileAccess::read, platform::FileShare::readWrite,
                       platform::FileDisposition::openExisting) == platform::error::success &&
           platform::Files().GetFileSizeEx(output.handle, size) == platform::error::success && size > bound.bytes;
}

enum class Wait { ended, timeExceeded, outputExceeded };

Wait AwaitEnd(platform::ProcessHandle process, std::uint32_t milliseconds, const std::optional<OutputBound>& bound) {
    for (std::uint32_t left = milliseconds; left > 0;) {
        const std::uint32_t step = bound ? std::min(left, lookMilliseconds) : left;
        const platform::Error error = platform::Processes().WaitForSingleObject(process, step);
        if (error == platform::error::success) return Wait::ended;
        if (error != platform::error::waitTimeout) break;
        if (bound && IsExceeded(*bound)) return Wait::outputExceeded;
        left -= step;
    }
    return Wait::timeExceeded;
}

void EndProcess(platform::ProcessHandle process, std::u16string_view commandLine) {
    if (const platform::Error failure = platform::Processes().TerminateProcess(process)) {
        Log1("execute : Unable to end all that %s has started \n", commandLine);
        LogLastSystemError(failure);
    }
    platform::Processes().WaitForSingleObject(process, endMilliseconds);
}

}  // namespace

int execute(const OptionalText& workingDirectory, std::u16string_view commandLine, std::u16string& remarks,
            std::uint32_t waitMinutes, bool wait, const std::optional<OutputBound>& bound) {
    Log3("\t Inside execute() \n");
    const platform::ProcessOperations& processes = platform::Processes();
    WorkingDirectory directory;
    if (workingDirectory && !directory.Enter(*workingDirectory, remarks)) return 0;

    platform::OwnedProcess process;
    const platform::Error error = processes.CreateProcessW(commandLine, u"", process.Place());
    if (error != platform::error::success) {
        Remark(remarks, "Failed to Create the Process for installing Patch");
        LogLastSystemError(error);
        return 0;
    }
    if (waitMinutes == 0 || !wait) return 1;

    const std::uint64_t limit =
        std::min<std::uint64_t>(waitMinutes * millisecondsPerMinute, std::numeric_limits<std::int32_t>::max());
    switch (AwaitEnd(process.get(), static_cast<std::uint32_t>(limit), bound)) {
        case Wait::ended:
            return ResultOfEndedProcess(process.get(), remarks);
        case Wait::timeExceeded:
            Remark(remarks, "Terminating the Process for application %s as time is exceeded %d Minutes \n", commandLine,
                   waitMinutes);
            break;
        case Wait::outputExceeded:
            Remark(remarks,
                   "Terminating the Process for application %s as it has printed more than %d bytes into %s \n",
                   commandLine, bound->bytes, bound->path);
            break;
    }
    EndProcess(process.get(), commandLine);
    return 0;
}

}  // namespace kv

#include "agent/bin_directory.h"

#include <cstdio>
#include <fmt/format.h>
#include <string>
#include <string_view>
#include <system_error>
#include <utility>

#include "agent/health_report.h"
#include "agent/log_file.h"
#include "agent/service.h"
#include "foundation/agent_health.h"
#include "foundation/agent_state.h"
#include "foundation/directory_failure.h"
#include "foundation/file_utils.h"
#include "foundation/guarded.h"
#include "foundation/log.h"
#include "platform/clock.h"
#include "platform/files.h"
#include "platform/messages.h"
#include "platform/utf.h"

namespace kv {

namespace {

using platform::Files;

constexpr const char* workingDirectoryLine = "\t InvokeMainThread :: Current working directory %s \n";
constexpr std::u16string_view monitoringName = u"monitoring";
constexpr std::u16string_view binTail = u"monitoring\\bin\\";  // behind the install directory
constexpr std::uint32_t lookMilliseconds = 1000;
constexpr int looksPerReport = 60;

std::u16string WorkingDirectory() {
    std::u16string directory;
    Files().wgetcwd(directory);
    return directory;
}

std::u16string BinPath() { return agentState.gv_ocAgentBinPath.value_or(u""); }

/// What KVAgentInstallDir holds; empty for a path that was not made from it.
std::u16string_view InstallPathOf(std::u16string_view binPath) {
    return binPath.ends_with(binTail) ? binPath.substr(0, binPath.size() - binTail.size()) : u"";
}

/// Behind a separator a link would be followed.
std::u16string_view WithoutSeparator(std::u16string_view path) {
    return path.substr(0, path.size() - (path.size() > 1 && EndsInSeparator(path) ? 1 : 0));
}

std::string NativeName(std::u16string_view path) { return platform::Utf8FromWide(Files().NativePath(path)); }

/// Why a directory cannot be entered or made, behind its name.
std::string ReasonOf(const char* step, int failure) {
    return fmt::format("cannot be {}: {} (errno {})", step, std::generic_category().message(failure), failure);
}

/// Why a path is not a directory, behind its name; empty when it is one.
std::string DirectoryFault(std::u16string_view path) {
    if (IsDirectory(path)) return {};
    std::uint32_t attributes = 0;
    const platform::Error result = Files().GetFileAttributesW(WithoutSeparator(path), attributes);
    if (result == platform::error::fileNotFound || result == platform::error::pathNotFound) return "does not exist";
    if (result == platform::error::accessDenied) return "cannot be looked at: a directory above it cannot be entered";
    if (result != platform::error::success) return "cannot be looked at: " + platform::MessageInLine(result);
    const bool isLink = (attributes & platform::file_attribute::reparsePoint) != 0;
    return isLink ? "is a link that leads to no directory" : "is not a directory";
}

/// Makes the bin directory of an install directory; why that failed, else empty.
std::string MakeBinDirectory(std::u16string_view install) {
    const std::u16string monitoring = ConcatStrings(install, monitoringName);
    int failure = MakeMonitoringDirectory();
    if (!IsDirectory(monitoring))
        return NativeName(monitoring) + " " +
               (MayExist(monitoring) ? DirectoryFault(monitoring) : ReasonOf("made", failure));
    const std::u16string path = BinPath();
    if (failure = Files().wmkdir(path); failure != platform::directory_error::success)
        return NativeName(path) + " " + ReasonOf("made", failure);
    Log1("\t InvokeMainThread :: %s was missing and has been made\n", Files().NativePath(path));
    return {};
}

/// Tries once; empty when the bin directory is the working directory, else why not.
std::string BinObstacle() {
    namespace directory_error = platform::directory_error;
    const std::u16string path = BinPath();
    int failure = Files().wchdir(path);
    if (failure == directory_error::success) return {};
    const std::u16string_view install = InstallPathOf(path);
    if (install.empty()) return {};  // nobody waits for a path that no setting names
    // It would be the beginning of another one's name.
    if (!EndsInSeparator(install)) return "KVAgentInstallDir does not end in a separator: " + NativeName(install);
    if (const std::string fault = DirectoryFault(install); !fault.empty())
        return fmt::format("the install directory {} of KVAgentInstallDir {}", NativeName(install), fault);
    const std::u16string_view directory = WithoutSeparator(path);
    if (MayExist(directory) && !IsDirectory(directory)) return NativeName(directory) + " " + DirectoryFault(directory);
    if (failure != directory_error::notFound) return NativeName(path) + " " + ReasonOf("entered", failure);
    if (std::string fault = MakeBinDirectory(install); !fault.empty()) return fault;
    failure = Files().wchdir(path);
    return failure == directory_error::success ? "" : NativeName(path) + " " + ReasonOf("entered", failure);
}

void TellOfObstacle(const std::string& obstacle) {
    Log1("\t WaitForBinDirectory :: %s. The agent collects and sends nothing until that is mended\n", obstacle);
    std::fprintf(stderr, "MonitoringAgent: %s; the agent collects and sends nothing until that is mended\n",
                 obstacle.c_str());
    TellServiceManager("waits: " + obstacle);
    NoteObstacle(obstacle);
}

/// Whether the bin directory is the working directory now. A look without an outcome, as without memory, leaves the
/// obstacle as it was, and another one has to follow: beside the wait the agent must not work.
bool LookAgain(std::string& obstacle) {
    bool isEntered = false;
    RunGuarded("BinObstacle", [&] {
        obstacle = BinObstacle();
        isEntered = obstacle.empty();
    });
    return isEntered;
}

/// One second of the wait.
void WaitBehind(const std::string& obstacle, std::string& told, int look) {
    RunGuarded("ReopenDeletedLog", ReopenDeletedLog);
    const bool isNew = told != obstacle;
    if (isNew)
        RunGuarded("WaitForBinDirectory", [&] {
            told = obstacle;
            TellOfObstacle(obstacle);
        });
    if (isNew || look % looksPerReport == 0) RunGuarded("ReportObstacle", ReportObstacle);
    platform::Clock().Sleep(lookMilliseconds);
}

void TellOfEnd() {
    Log1("\t WaitForBinDirectory :: That is mended. The agent begins its work in %s\n", WorkingDirectory());
    TellServiceManager("begins its work");
}

}  // namespace

std::u16string_view InstallDirectoryOf(std::u16string_view binPath) {
    const std::u16string_view install = InstallPathOf(binPath);
    return EndsInSeparator(install) ? install : u"";
}

int MakeMonitoringDirectory() {
    const std::u16string path = BinPath();
    const std::u16string_view install = InstallDirectoryOf(path);
    if (install.empty() || !IsDirectory(install)) return platform::directory_error::success;
    return Files().wmkdir(ConcatStrings(install, monitoringName));
}

void EnterBinDirectory() {
    Log4("\t Inside EnterBinDirectory() \n");
    const int failure = Files().wchdir(BinPath());
    if (failure == platform::directory_error::success) {
        Log1(workingDirectoryLine, WorkingDirectory());
        return;
    }
    LogDirectoryFailure(failure,
                        {.notFound = {1, "\t InvokeMainThread :: Unable to locate the directory: %s\n"},
                         .invalid = {1, "\t InvokeMainThread :: Invalid Argument\n"},
                         .other = {1, "\t InvokeMainThread :: Unknown Error.\n"}},
                        BinPath());
    if (BinObstacle().empty())
        Log1(workingDirectoryLine, WorkingDirectory());
    else
        Log3(workingDirectoryLine, WorkingDirectory());
}

bool WaitForBinDirectory() {
    std::string obstacle;
    std::string told;
    int looks = 0;
    while (!LookAgain(obstacle)) WaitBehind(obstacle, told, looks++);
    if (looks == 0) return false;
    NoteObstacle("");
    RunGuarded("ReopenDeletedLog", ReopenDeletedLog);
    RunGuarded("WaitForBinDirectory", TellOfEnd);
    return true;
}

}  // namespace kv

#include "agent/bin_directory.h"

#include <cstdio>
#include <fmt/format.h>
#include <string>
#include <string_view>
#include <system_error>
#include <utility>

#include "agent/health_report.h"
#include "agent/log_file.h"
#include "foundation/agent_health.h"
#include "foundation/agent_state.h"
#include "foundation/directory_failure.h"
#include "foundation/file_utils.h"
#include "foundation/guarded.h"
#include "foundation/log.h"
#include "platform/clock.h"
#include "platform/files.h"
#include "platform/service_host.h"
#include "platform/utf.h"

namespace kv {

namespace {

using platform::Files;

constexpr const char* workingDirectoryLine = "\t InvokeMainThread :: Current working directory %s \n";
constexpr std::u16string_view monitoringName = u"monitoring";
constexpr std::u16string_view binName = u"\\bin\\";
constexpr std::uint32_t lookMilliseconds = 1000;
constexpr int looksPerReport = 60;

std::u16string WorkingDirectory() {
    std::u16string directory;
    Files().wgetcwd(directory);
    return directory;
}

std::u16string BinPath() { return agentState.gv_ocAgentBinPath.value_or(u""); }

/// What KVAgentInstallDir holds; empty for a path that was not made from it.
std::u16string InstallPath() {
    const std::u16string path = BinPath();
    const std::u16string tail = ConcatStrings(monitoringName, binName);
    return path.ends_with(tail) ? path.substr(0, path.size() - tail.size()) : u"";
}

/// Without a separator at its end, an install directory would be the beginning of another one's name.
bool HasSeparator(std::u16string_view install) { return install.ends_with(u'\\') || install.ends_with(u'/'); }

std::string NativeName(std::u16string_view path) { return platform::Utf8FromWide(Files().NativePath(path)); }

/// Why a directory cannot be entered or made, behind its name.
std::string ReasonOf(const char* step, int failure) {
    return fmt::format("cannot be {}: {} (errno {})", step, std::generic_category().message(failure), failure);
}

/// Tries once; empty when the bin directory is the working directory, else why not.
std::string BinObstacle() {
    namespace directory_error = platform::directory_error;
    const std::u16string path = BinPath();
    int failure = Files().wchdir(path);
    if (failure == directory_error::success) return {};
    const std::u16string install = InstallPath();
    if (install.empty()) return {};  // nobody waits for a path that no setting names
    if (!HasSeparator(install)) return "KVAgentInstallDir does not end in a separator: " + NativeName(install);
    if (!IsDirectory(install))
        return fmt::format("the install directory {} does not exist, which KVAgentInstallDir names",
                           NativeName(install));
    const std::u16string_view directory = std::u16string_view(path).substr(0, path.size() - 1);
    if (!IsDirectory(directory) && MayExist(directory)) return NativeName(directory) + " is not a directory";
    if (failure != directory_error::notFound) return NativeName(path) + " " + ReasonOf("entered", failure);
    MakeMonitoringDirectory();
    if (failure = Files().wmkdir(path); failure != directory_error::success)
        return NativeName(path) + " " + ReasonOf("made", failure);
    Log1("\t InvokeMainThread :: %s was missing and has been made\n", Files().NativePath(path));
    failure = Files().wchdir(path);
    return failure == directory_error::success ? "" : NativeName(path) + " " + ReasonOf("entered", failure);
}

void TellServiceManager(const std::string& text) {
    if (agentState.gv_serviceStatusHandle != 0)
        platform::ServiceHost().SetStatusText(agentState.gv_serviceStatusHandle, text);
}

void TellOfObstacle(const std::string& obstacle) {
    Log1("\t WaitForBinDirectory :: %s. The agent collects and sends nothing until that is mended\n", obstacle);
    std::fprintf(stderr, "MonitoringAgent: %s; the agent collects and sends nothing until that is mended\n",
                 obstacle.c_str());
    TellServiceManager("waits: " + obstacle);
    NoteObstacle(obstacle);
}

/// One second of the wait.
void WaitBehind(const std::string& obstacle, std::string& told, int look) {
    RunGuarded("ReopenDeletedLog", ReopenDeletedLog);
    const bool isNew = std::exchange(told, obstacle) != obstacle;
    if (isNew) RunGuarded("WaitForBinDirectory", [&] { TellOfObstacle(obstacle); });
    if (isNew || look % looksPerReport == 0) RunGuarded("ReportObstacle", ReportObstacle);
    platform::Clock().Sleep(lookMilliseconds);
}

}  // namespace

void MakeMonitoringDirectory() {
    const std::u16string install = InstallPath();
    if (HasSeparator(install) && IsDirectory(install)) Files().wmkdir(install + std::u16string(monitoringName));
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
    std::string told;
    int looks = 0;
    for (std::string obstacle = BinObstacle(); !obstacle.empty(); obstacle = BinObstacle())
        WaitBehind(obstacle, told, looks++);
    if (looks == 0) return false;
    NoteObstacle("");
    RunGuarded("ReopenDeletedLog", ReopenDeletedLog);
    Log1("\t WaitForBinDirectory :: That is mended. The agent begins its work in %s\n", WorkingDirectory());
    RunGuarded("TellServiceManager", [] { TellServiceManager("begins its work"); });
    return true;
}

}  // namespace kv

#include "agent/entry.h"

#include <algorithm>
#include <cstdio>
#include <iterator>
#include <new>
#include <string>
#include <string_view>

#include "agent/bin_directory.h"
#include "agent/health_report.h"
#include "agent/log_file.h"
#include "agent/main_thread.h"
#include "agent/server_details.h"
#include "agent/service.h"
#include "agent/service_admin.h"
#include "foundation/agent_health.h"
#include "foundation/agent_state.h"
#include "foundation/file_utils.h"
#include "foundation/guarded.h"
#include "foundation/log.h"
#include "foundation/registry_failure.h"
#include "foundation/registry_store.h"
#include "foundation/resource_lock.h"
#include "foundation/system_error.h"
#include "foundation/thread_pool.h"
#include "foundation/version.h"
#include "platform/console_tool.h"
#include "platform/files.h"
#include "platform/service_host.h"
#include "platform/utf.h"

namespace kv {

namespace {

constexpr std::u16string_view agentLog = u"..\\logs\\agent.log";
constexpr std::u16string_view testMonitorLog = u"..\\logs\\testmonitor.log";

// Two notes that differ by one letter: the one that exists tells an administrator what went wrong before the log was
// open.
constexpr std::u16string_view registryNote = u"c:\\test.txt";
constexpr std::u16string_view memoryNote = u"c:\\text.txt";

/// The program does not know its first argument.
bool isRefused = false;

/// What "--help" prints, up to where this system keeps the settings.
constexpr const char* help =
    "Usage: MonitoringAgent [/t | /monitor | /i | /u]\n"
    "Collects on this computer what a central server asks for, and uploads it there.\n"
    "\n"
    "Without an argument it runs as a service; only the service manager starts it like that.\n"
    "\n"
    "  /t          runs in the console, until it is ended\n"
    "  /monitor    writes the configuration to logs/testmonitor.log, at AgentLogLevel 2 and up\n"
    "  /i          installs the service\n"
    "  /u          removes the service\n"
    "  -h, --help  prints this help\n"
    "  --version   prints the version\n"
    "\n"
    "The settings are values of the registry, below Software\\Halvorine\\Kestrova\\KVAgent of HKEY_LOCAL_MACHINE.\n";

/// Appends to a file that stands in for the log before that is open. Writes nothing when it cannot be opened. A
/// mistyped argument on a computer without an agent makes no drive for it.
void AppendNote(std::u16string_view path, std::string_view text) {
    if (isRefused && !platform::Files().IsDirectory(u"c:\\")) return;
    const platform::FileOperations& files = platform::Files();
    platform::FileHandle note = 0;
    if (files.CreateFileW(path, platform::FileAccess::append, platform::FileShare::read,
                          platform::FileDisposition::openAlways, note) != platform::error::success) {
        return;
    }
    files.WriteText(note, text);
    files.CloseHandle(note);
}

/// Why the first setting, which says where the agent is, cannot be used, behind its name.
std::string InstallDirFault(platform::Error failure) {
    if (failure == platform::error::success) return "is not a text";
    if (IsGone(failure) && EmptyRegistryText().empty()) {
        const std::string file = platform::RegistryFile();
        return "is missing" + (file.empty() ? "" : " in " + file) + "; kvagentctl check tells how to set it";
    }
    return "cannot be read: " + RegistryFailureText(failure);
}

platform::Error ReadInstallDir(OptionalText& installDir) {
    return AskForAMinute([&] { return GetKVAgentInstallDir(installDir); },
                         [](platform::Error failure) {
                             std::fprintf(stderr,
                                          "MonitoringAgent: the setting KVAgentInstallDir %s; it is tried again "
                                          "for a minute\n",
                                          InstallDirFault(failure).c_str());
                         });
}

/// Finds the bin directory. False if memory runs out; true, and no path, if the setting is absent.
bool FindBinPath() try {
    OptionalText installDir;
    const platform::Error error = ReadInstallDir(installDir);
    if (error != platform::error::success || !installDir) {
        const std::string fault = InstallDirFault(error);
        std::fprintf(stderr, "MonitoringAgent: the setting KVAgentInstallDir %s\n", fault.c_str());
        AppendNote(registryNote, "Not able to fetch the KV Agent installation directory from the registry\n");
        return true;
    }
    agentState.gv_ocAgentBinPath = *installDir + u"monitoring\\bin\\";
    return true;
} catch (const std::bad_alloc&) {
    AppendNote(memoryNote, "Not able to allocate memory for gv_ocAgentBinPath\n");
    return false;
}

/// Opens the log. When that fails, a person at the console is told where it should have been, and why it is not.
void OpenLog(std::u16string_view name) {
    RotateLogger(name);
    if (logState.gv_logFile == 0)
        std::fprintf(stderr, "MonitoringAgent: the log %s %s; going on without a log\n",
                     platform::Utf8FromWide(platform::Files().NativePath(logState.gv_logPath)).c_str(),
                     LogFault().c_str());
}

int RunAsService() {
    MakeMonitoringDirectory();
    OpenLog(agentLog);
    agentState.gv_isWin2k = IsWin2kOS();
    const platform::Error error = platform::ServiceHost().StartServiceCtrlDispatcherW(serviceName, ServiceMain);
    if (error == platform::error::success) return 0;

    Log1("Main : StartServiceCtrlDispatcher is failed to start due to the following error !!!\n");
    LogSystemError(error);
    agentState.gv_ocAgentBinPath.reset();
    AppendNote(registryNote, "Entered into StartServiceCtrlDispatcher!\n" + std::to_string(error) + "\n");
    if (error == platform::error::serviceControllerConnect)
        std::fprintf(
            stderr, "MonitoringAgent: no service manager started this process (error %u); \"/t\" runs the agent here\n",
            error);
    else
        std::fprintf(stderr, "MonitoringAgent: the service cannot be run (error %u)\n", error);
    return 0;
}

int RunInstall() {
    OpenLog(agentLog);
    Log3("Going to install service\n");
    Install();
    return 1;
}

int RunUnInstall() {
    OpenLog(agentLog);
    Log3("Calling UN-INSTALL option\n");
    UnInstall();
    return 1;
}

/// Tells a person at the console that the settings are not all there; a service tells its manager.
void TellOfSettings() {
    const std::string obstacle = SettingObstacle();
    if (!obstacle.empty())
        std::fprintf(stderr, "MonitoringAgent: %s; kvagentctl check tells how to set it\n", obstacle.c_str());
}

[[noreturn]] void RunInConsole(std::u16string_view argument) {
    MakeMonitoringDirectory();
    OpenLog(agentLog);
    Log3("Going to work in command line %s\n", argument);
    LoadSettings();
    RunGuarded("TellOfSettings", TellOfSettings);
    agentState.gv_isMainThreadStarted = true;
    CreateNewThread_MSP(InvokeMainThread, nullptr);
    WaitForever();
}

int PrintConfiguration(std::u16string_view argument) {
    OpenLog(testMonitorLog);
    Log3("Going to process test monitor %s\n", argument);
    LoadSettings();
    ProcessTestMonitor();
    StopLogging();
    return 1;
}

int RefuseParameter(std::u16string_view argument) {
    OpenLog(agentLog);
    Log3("Invalid parameter %s\n", argument);
    agentState.gv_ocAgentBinPath.reset();
    return 0;
}

/// Serves an argument that asks about the program and needs no setting; false for any other one.
bool TellsAboutProgram(std::string_view argument) {
    if (argument == "--version")
        std::printf("MonitoringAgent %s\n", std::string(programVersion).c_str());
    else if (argument == "--help" || argument == "-h")
        std::printf("%s%s\n", help, std::string(platform::RegistryPlace()).c_str());
    else
        return false;
    return true;
}

bool IsRunMode(std::u16string_view argument) {
    constexpr std::u16string_view modes[] = {u"/i", u"/u", u"/t", u"/monitor"};
    return std::any_of(std::begin(modes), std::end(modes),
                       [&](std::u16string_view mode) { return CompareIgnoreCase(argument, mode) == 0; });
}

/// The first argument as it was typed. When it names no run mode, the person at the console is told first of all.
std::u16string TakeArgument(const std::vector<std::string>& words) {
    std::u16string argument;
    if (words.size() > 1) ChangeUtf8ToWideStr(words[1].c_str(), argument);
    isRefused = words.size() > 1 && !IsRunMode(argument);
    if (isRefused)
        std::fprintf(stderr,
                     "MonitoringAgent: the first argument is /t, /monitor, /i, /u or absent, not '%s'; --help tells "
                     "what they do\n",
                     platform::Utf8FromWide(argument).c_str());
    return argument;
}

}  // namespace

void InitAgentParams() {
    Log4("\t\n@@@@@ InitAgentParams Method @@@@@\n");
    SetDefaults();
    ResetAgentHealth();
}

void ProcessTestMonitor() {}

int Main(const std::vector<std::string>& words) {
    if (words.size() > 1 && TellsAboutProgram(words[1])) {
        if (std::fflush(stdout) == 0) return 0;
        std::fprintf(stderr, "MonitoringAgent: standard output cannot be written\n");
        return 1;
    }
    const std::u16string argument = TakeArgument(words);
    agentState.gv_ocAgentBinPath.reset();
    InitMutex();
    if (!FindBinPath()) return 0;
    InitAgentParams();

    if (!agentState.gv_ocAgentBinPath) {
        // Every path of the agent depends on this one, the log's too: without it nothing is safe to do.
        return 1;
    }
    if (words.size() < 2) return RunAsService();

    if (CompareIgnoreCase(argument, u"/i") == 0) return RunInstall();
    if (CompareIgnoreCase(argument, u"/u") == 0) return RunUnInstall();
    if (CompareIgnoreCase(argument, u"/t") == 0) RunInConsole(argument);
    if (CompareIgnoreCase(argument, u"/monitor") == 0) return PrintConfiguration(argument);
    return RefuseParameter(argument);
}

}  // namespace kv

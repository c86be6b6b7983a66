#include "agent/main_thread.h"

#include <string>

#include "agent/directory_lock.h"
#include "agent/enrolment.h"
#include "agent/health_report.h"
#include "agent/service_admin.h"
#include "exchange/request_polling.h"
#include "exchange/upload_pipeline.h"
#include "foundation/agent_state.h"
#include "foundation/directory_failure.h"
#include "foundation/guarded.h"
#include "foundation/log.h"
#include "foundation/thread_pool.h"
#include "foundation/time_utils.h"
#include "platform/clock.h"
#include "platform/files.h"
#include "queryconf/query_config.h"

namespace kv {

namespace {

std::u16string WorkingDirectory() {
    std::u16string directory;
    platform::Files().wgetcwd(directory);
    return directory;
}

/// All relative paths of the agent depend on this. When it fails, the agent goes on in the directory that it started
/// in.
void EnterBinDirectory() {
    Log4("\t Inside EnterBinDirectory() \n");
    constexpr const char* currentDirectory = "\t InvokeMainThread :: Current working directory %s \n";
    const std::u16string path = agentState.gv_ocAgentBinPath.value_or(u"");
    const int failure = platform::Files().wchdir(path);
    if (failure == platform::directory_error::success) {
        Log1(currentDirectory, WorkingDirectory());
        return;
    }
    LogDirectoryFailure(failure,
                        {.notFound = {1, "\t InvokeMainThread :: Unable to locate the directory: %s\n"},
                         .invalid = {1, "\t InvokeMainThread :: Invalid Argument\n"},
                         .other = {1, "\t InvokeMainThread :: Unknown Error.\n"}},
                        path);
    Log3(currentDirectory, WorkingDirectory());
}

}  // namespace

std::uint32_t InvokeMainThread(void* /*ignored*/) {
    Log3("\tInside InvokeMainThread() %s %s \n", GetCurrDateString(), GetTimeString(1));
    RunGuarded("EnterBinDirectory", EnterBinDirectory);
    RunGuarded("WaitForDirectory", WaitForDirectory);
    CreateNewThread_MSP(ReportHealth, nullptr);
    RunGuarded("InitLicenseParams", InitLicenseParams);
    if (agentState.gv_agentRunFlag == 1) {
        RunGuarded("LoadConfFiles", LoadConfFiles);
        CreateNewThread_MSP(RequestCentralServer, nullptr);
        CreateNewThread_MSP(StripTxtFiles, nullptr);
        WaitForever();
    }
    Log1("\t gv_agentRunFlag is set to FALSE. Shutting the agent service \n");
    StopService();
    return 0;
}

void WaitForever() {
    while (true) platform::Clock().Sleep(1000);
}

}  // namespace kv

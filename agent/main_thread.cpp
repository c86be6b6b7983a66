#include "agent/main_thread.h"

#include "agent/bin_directory.h"
#include "agent/directory_lock.h"
#include "agent/enrolment.h"
#include "agent/health_report.h"
#include "agent/service_admin.h"
#include "exchange/request_polling.h"
#include "exchange/upload_pipeline.h"
#include "foundation/agent_state.h"
#include "foundation/guarded.h"
#include "foundation/log.h"
#include "foundation/thread_pool.h"
#include "foundation/time_utils.h"
#include "platform/clock.h"
#include "queryconf/query_config.h"

namespace kv {

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

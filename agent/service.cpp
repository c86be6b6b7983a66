#include "agent/service.h"

#include <string_view>
#include <utility>

#include "agent/directory_lock.h"
#include "agent/health_report.h"
#include "agent/log_file.h"
#include "agent/main_thread.h"
#include "agent/server_details.h"
#include "collection/record_file.h"
#include "exchange/agent_status.h"
#include "foundation/agent_state.h"
#include "foundation/guarded.h"
#include "foundation/log.h"
#include "foundation/registry_store.h"
#include "foundation/resource_lock.h"
#include "foundation/system_error.h"
#include "foundation/text.h"
#include "foundation/thread_pool.h"
#include "foundation/time_utils.h"
#include "platform/service_host.h"
#include "platform/threads.h"

namespace kv {

namespace {

using platform::Error;
using platform::ServiceState;
namespace error = platform::error;

/// How long a stop waits for the report to the server and the counters.
constexpr std::uint32_t shutdownMilliseconds = 20000;

void LogFailure(const char* line, Error failure) {
    Log1(line);
    RunGuarded("LogFailure", [failure] { LogLastSystemError(failure); });
}

/// Ends a start before anything else runs or hears of it.
void GiveUpStart(const char* line, Error failure) {
    LogFailure(line, failure);
    FreeAllResources();
    if (const platform::EventHandle event = std::exchange(agentState.gv_stopEvent, 0))
        platform::Threads().CloseEvent(event);
}

/// Makes the stop event and registers the handler; false when one of them cannot be obtained.
bool SetUpService() {
    if (const Error failure = platform::Threads().CreateEventW(agentState.gv_stopEvent)) {
        GiveUpStart("\t ServiceMain : Create event failed due to the following error !! \n", failure);
        return false;
    }
    if (const Error failure = platform::ServiceHost().RegisterServiceCtrlHandlerExW(
            serviceName, HandlerEx, nullptr, agentState.gv_serviceStatusHandle)) {
        GiveUpStart(
            "\t ServiceMain : RegisterServiceCtrlHandlerEx failed to register the callback due to the following error "
            "!! \n",
            failure);
        return false;
    }
    Log3("\t ServiceMain : RegisterServiceCtrlHandlerEx callback registration is successful \n");
    return true;
}

/// Starts the main thread between two reports; false when one of them fails.
bool StartWork() {
    // From the first report on, a stop may come at any moment, even while the main thread is being started.
    agentState.gv_isMainThreadStarted = true;
    if (!ChangeServiceStatus(ServiceState::startPending)) return false;
    CreateNewThread_MSP(InvokeMainThread, nullptr);
    return ChangeServiceStatus(ServiceState::running);
}

/// The same for a stop and for the end of the computer, except for the text that the server gets.
void ShutDown(std::u16string_view agentStatus) {
    ChangeServiceStatus(ServiceState::stopPending);
    RunGuarded("HandlerEx", [agentStatus] { agentState.gv_agentStatus.Publish(agentStatus); });
    const platform::ThreadHandle worker = CreateNewThread_MSP(AgentShutdownWorker, nullptr);
    platform::Threads().WaitForThread(worker, shutdownMilliseconds);
    platform::Threads().SetEvent(agentState.gv_stopEvent);
}

void ReportEndWhereWanted() {
    // The server would take it for the end of the agent that works.
    if (WaitsForDirectory()) return;
    OptionalText enabled;
    if (GetEnableSendAgentStatus(enabled) == error::success && CompareIgnoreCase(enabled, u"yes") == 0)
        SendAgentStatus();
}

}  // namespace

void ServiceMain() {
    Log2("\t Inside ServiceMain() %s %s\n", GetCurrDateString(), GetTimeString(1));
    InitMutex();
    LoadSettings("\t ServiceMain() :: getCSDetails returned ERROR_INVALID_DATA\n");
    if (!SetUpService() || !StartWork()) return;
    Log1("\t %s ServiceMain : Tallowmere OnCall Agent Service is started successfully \n", GetTimeString(1));
    platform::Threads().WaitForEvent(agentState.gv_stopEvent, platform::infinite);
    // The process ends now. Until then a second stop may still be on its way to the event, so it stays open. There is
    // no critical section to delete: nothing would ever enter it.
    ChangeServiceStatus(ServiceState::stopped);
}

std::uint32_t HandlerEx(std::uint32_t control, std::uint32_t /*eventType*/, void* /*eventData*/, void* /*context*/) {
    namespace service_control = platform::service_control;
    if (control == service_control::stop || control == service_control::shutdown) EndLogRotation();
    Log3("HandlerEx : Inside HandlerEx Method \n");
    switch (control) {
        case service_control::stop:
            Log2("%s HandlerEx : Service Control Stop notification is received \n", GetTimeString(1));
            ShutDown(u"AGENT_DOWN");
            break;
        case service_control::shutdown:
            Log2("%s HandlerEx : Service Control Machine shutdown notification is received \n", GetTimeString(1));
            ShutDown(u"DEVICE_DOWN");
            break;
        case service_control::pause:
            // Collection goes on: only the reported state changes, and the next interrogation brings it back.
            Log3("%s HandlerEx : Service Control Pause notification is received \n", GetTimeString(1));
            ChangeServiceStatus(ServiceState::paused);
            break;
        case service_control::sessionChange:
            break;
        default:
            ChangeServiceStatus(ServiceState::running);
    }
    return 0;
}

void TellServiceManager(const std::string& text) {
    if (agentState.gv_serviceStatusHandle != 0)
        platform::ServiceHost().SetStatusText(agentState.gv_serviceStatusHandle, text);
}

bool ChangeServiceStatus(ServiceState state) {
    namespace accepts = platform::service_accepts;
    Log3("\t Inside ChangeServiceStatus() \n");
    constexpr std::uint32_t everywhere = accepts::stop | accepts::pauseAndContinue | accepts::shutdown;
    // Each report has a record of its own: they come from two threads.
    const platform::ServiceStatus status{
        .dwServiceType = platform::service_type::ownProcess | platform::service_type::sharedProcess,
        .dwCurrentState = state,
        .dwControlsAccepted = agentState.gv_isWin2k ? everywhere : everywhere | accepts::sessionChange,
    };
    const Error failure = platform::ServiceHost().SetServiceStatus(agentState.gv_serviceStatusHandle, status);
    if (failure == error::success) return true;
    LogFailure("ChangeServiceStatus : SetServiceStatus is failed due to following error !! \n", failure);
    return false;
}

std::uint32_t AgentShutdownWorker(void* /*ignored*/) {
    Log3("\t Inside AgentShutdownWorker() \n");
    // Also before the report: a server that keeps silent holds it up until the process ends.
    RunGuarded("StoreLastFileNum", StoreLastFileNum);
    RunGuarded("ReportStop", ReportStop);
    RunGuarded("SendAgentStatus", ReportEndWhereWanted);
    RunGuarded("StoreLastFileNum", StoreLastFileNum);
    RunGuarded("ReportStopInMetrics", ReportStopInMetrics);
    RunGuarded("FreeAllResources", FreeAllResources);
    return 1;
}

}  // namespace kv

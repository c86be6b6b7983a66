#include <cstdio>
#include <mutex>

#include "foundation/agent_state.h"
#include "snmp/manager_operations.h"
#include "snmp/processing_hooks.h"
#include "snmp/toolkit_log.h"
#include "snmp/udp_transport.h"

namespace kv::snmp {

namespace {

constexpr const char* banner = "Sablewire Agent Toolkit 6.4.0";
constexpr const char* ownLogName = "logs\\SNMP_agent.log";

/// Closes the session of an earlier start. The engine's own session stays open for the life of the process, and is not
/// freed at its end: there may be no socket operations left to close it with.
void CloseOwnSession() {
    if (transportState.ownSession) CloseSnmpSession(transportState.ownSession);
    FreeTransportDomainInfo(transportState.ownSession);
    transportState.ownSession = nullptr;
}

/// False without a line when memory ran out.
bool InitManagerGlobals() {
    TKLOG(3, "\t Inside InitManagerGlobals() \n");
    logState.gv_logOpenFailed = static_cast<std::uint16_t>(logState.gv_logOpenFailed & 0xFF00);
    GetLocalHostAddress(transportState.localHostAddress);
    CloseOwnSession();
    transportState.ownSession = CreateTransportDomainInfo(ownPort, 0, "");
    return transportState.ownSession != nullptr;
}

// The agent and the engine share one word as a flag; the engine's half is its low byte.
bool IsStarted() { return (agentState.gv_agentRunFlag & 0xFF) == 1; }
void SetStarted() {
    agentState.gv_agentRunFlag = static_cast<std::uint16_t>((agentState.gv_agentRunFlag & 0xFF00) | 1);
}

bool OpenOwnLog() {
    if (OpenToolkitLog(ownLogName)) return true;
    std::printf("Unable to start manager, due to invalid inputs !!!\n");
    return false;
}

/// Opens the engine's own session; false without a line when memory ran out.
bool StartSNMPService() {
    TKLOG(3, "\t Inside StartSNMPService() \n");
    const auto opened = static_cast<std::uint8_t>(OpenSnmpSession(transportState.ownSession));
    if (opened == 99) return false;
    if (opened == 0 || opened == 255) {
        std::printf("Unable to open the snmpsession at %d\n", ownPort);
        TKLOG(1, "Unable to start SNMP Service !!!\n");
        return false;
    }
    UpdateAgentTransportDomainInfo();
    GetLocalHostAddress(transportState.localHostAddress);
    return true;
}

/// Runs the code of a stage; false with a line when it fails.
bool RunHook(std::int32_t stage, const char* failure) {
    const std::uint8_t result = DoProcessingCode(stage);
    if (result != 0 && result != 99) return true;
    TKLOG(1, failure);
    return false;
}

void InitSnmpParams() { InitTransportDomain(); }

/// The steps of a start; the first one that fails ends it.
bool RunStartUpBlock() {
    if (!InitManagerGlobals() || !OpenOwnLog()) return false;
    InitMutex();
    TKLOG(2, "%s \n", banner);
    InitSnmpParams();
    return RunHook(1, "Unable to process the code added prior to Service startup!!!\n") && StartSNMPService() &&
           RunHook(2, "Unable to process the code added after service startup!!!\n");
}

}  // namespace

bool StartToolkit() {
    if (IsStarted()) return true;
    static std::mutex starting;
    const std::lock_guard guard(starting);
    if (IsStarted()) return true;
    if (!RunStartUpBlock()) return false;
    SetStarted();
    return true;
}

}  // namespace kv::snmp

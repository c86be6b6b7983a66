#include <cstdio>
#include <mutex>

#include "foundation/agent_state.h"
#include "snmp/manager_operations.h"
#include "snmp/toolkit_log.h"
#include "snmp/udp_transport.h"

namespace kv::snmp {

namespace {

constexpr const char* banner = "Sablewire Agent Toolkit 6.4.0";
constexpr const char* ownLogName = "logs\\SNMP_agent.log";

/// The engine's own session, or null: open for the life of the process, and nothing reads or writes it. Never freed at
/// the end, when there may be no socket operations any more to close it with.
TransportDomainInfo* ownSession = nullptr;

/// A start that follows one that failed, or that the server asked for again, opens a new one.
void CloseOwnSession() {
    if (ownSession) CloseSnmpSession(ownSession);
    FreeTransportDomainInfo(ownSession);
    ownSession = nullptr;
}

// The flag is one word that the agent and the engine share; the engine's half is its low byte.
bool IsStarted() { return (agentState.gv_agentRunFlag & 0xFF) == 1; }
void SetStarted() {
    agentState.gv_agentRunFlag = static_cast<std::uint16_t>((agentState.gv_agentRunFlag & 0xFF00) | 1);
}

bool OpenOwnLog() {
    if (OpenToolkitLog(ownLogName)) return true;
    std::printf("Unable to start manager, due to invalid inputs !!!\n");
    return false;
}

/// Opens the engine's own session; false without a word when memory ran out.
bool StartSNMPService() {
    CloseOwnSession();
    ownSession = CreateTransportDomainInfo(ownPort, 0, "");
    if (!ownSession) return false;
    const auto opened = static_cast<std::uint8_t>(OpenSnmpSession(ownSession));
    if (opened == 99) return false;
    if (opened == 0 || opened == 255) {
        std::printf("Unable to open the snmpsession at %d\n", ownPort);
        TKLOG(1, "Unable to start SNMP Service !!!\n");
        return false;
    }
    UpdateAgentTransportDomainInfo(ownSession);
    return true;
}

}  // namespace

bool StartToolkit() {
    if (IsStarted()) return true;
    static std::mutex starting;
    const std::lock_guard guard(starting);
    if (IsStarted()) return true;
    if (!OpenOwnLog()) return false;
    InitSocketMutex();
    TKLOG(2, "%s \n", banner);
    InitTransportDomain();
    if (!StartSNMPService()) return false;
    SetStarted();
    return true;
}

}  // namespace kv::snmp

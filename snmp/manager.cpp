#include <new>

#include "snmp/manager_operations.h"
#include "snmp/snmp_manager.h"
#include "snmp/toolkit_log.h"
#include "snmp/udp_transport.h"

namespace kv {

namespace {

const char* TextOrEmpty(const char* text) { return text ? text : ""; }

/// Null when the request cannot be made, when a walk stays unanswered, and when memory ran out.
snmp::ResultVectors Operate(const snmp::ManagerRequest& request) try {
    if (!request.oids || request.oidCount < 1) {
        Log1("\t SnmpManagerRequest :: a request without OIDs is not sent to %s \n", request.host);
        return nullptr;
    }
    return request.requestType == snmpWalk ? snmp::SnmpWalkOperation(request) : snmp::SnmpGetOperation(request);
} catch (const std::bad_alloc&) {
    return nullptr;
}

}  // namespace

SnmpResponseData* SnmpManagerRequest(const char* host, std::int32_t port, std::int32_t timeoutSeconds,
                                     const char* community, std::int32_t requestType, const char* version,
                                     const char* const* oids, std::int32_t oidCount, std::int32_t agentLogLevel,
                                     SnmpResponseData* fallback) try {
    snmp::SetToolkitLogLevel(agentLogLevel);
    snmp::TKLOG(3, "\t Inside SnmpManagerRequest() \n");
    if (!snmp::StartToolkit() || requestType > snmpWalk) return nullptr;
    snmp::UpdateSourceCheck();
    const snmp::ResultVectors results = Operate({.host = TextOrEmpty(host),
                                                 .port = port,
                                                 .timeoutSeconds = timeoutSeconds,
                                                 .community = TextOrEmpty(community),
                                                 .requestType = requestType,
                                                 .version = TextOrEmpty(version),
                                                 .oids = oids,
                                                 .oidCount = oidCount});
    if (!results) {
        snmp::PrintToConsole("GetSNMP Response returns NULL\n");
        return fallback;
    }
    return snmp::ConstructResponseData(oids, oidCount, results.get(), fallback, requestType);
} catch (const std::bad_alloc&) {
    return nullptr;
}

}  // namespace kv

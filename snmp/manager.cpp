#include <cstdio>
#include <new>

#include "snmp/manager_operations.h"
#include "snmp/snmp_manager.h"
#include "snmp/toolkit_log.h"

namespace kv {

namespace {

const char* TextOrEmpty(const char* text) { return text ? text : ""; }

SnmpResponseData* Perform(const snmp::ManagerRequest& request, SnmpResponseData* fallback) {
    if (request.requestType > snmpWalk) return nullptr;
    const snmp::ResultVectors results =
        request.requestType == snmpWalk ? snmp::SnmpWalkOperation(request) : snmp::SnmpGetOperation(request);
    if (!results) {
        std::printf("GetSNMP Response returns NULL\n");
        return fallback;
    }
    return snmp::ConstructResponseData(request.oids, request.oidCount, results.get(), request.requestType);
}

}  // namespace

SnmpResponseData* SnmpManagerRequest(const char* host, std::int32_t port, std::int32_t timeoutSeconds,
                                     const char* community, std::int32_t requestType, const char* version,
                                     const char* const* oids, std::int32_t oidCount, std::int32_t agentLogLevel,
                                     SnmpResponseData* fallback) try {
    snmp::SetToolkitLogLevel(agentLogLevel);
    if (!snmp::StartToolkit(agentLogLevel)) return nullptr;
    if (oidCount < 1) {
        snmp::TKLOG(1, "A request without OIDs is not sent\n");
        return fallback;
    }
    return Perform({.host = TextOrEmpty(host),
                    .port = port,
                    .timeoutSeconds = timeoutSeconds,
                    .community = TextOrEmpty(community),
                    .requestType = requestType,
                    .version = TextOrEmpty(version),
                    .oids = oids,
                    .oidCount = oidCount},
                   fallback);
} catch (const std::bad_alloc&) {
    snmp::TKLOG(1, "Unable to allocate memory\n");
    return nullptr;
}

}  // namespace kv

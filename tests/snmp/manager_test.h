// The fixture of tests of the SNMP manager.
#pragma once

#include <fmt/format.h>
#include <gmock/gmock.h>

#include "foundation/agent_state.h"
#include "foundation/log.h"
#include "snmp/snmp_manager.h"
#include "tests/support/snmp_devices.h"
#include "tests/support/test_agent.h"

namespace kv::test {

inline constexpr const char* system = ".1.3.6.1.2.1.1";
inline constexpr const char* sysDescr = ".1.3.6.1.2.1.1.1.0";
inline constexpr const char* sysName = ".1.3.6.1.2.1.1.5.0";
inline constexpr const char* unknown = ".1.3.6.1.2.1.1.77.0";

/// One request, by default a get without an OID.
struct Request {
    std::uint16_t port = 0;
    std::int32_t type = snmpGet;
    std::vector<const char*> oids = {};
    const char* version = "v2c";
    std::string community = "public";
    std::string host = "127.0.0.1";
    std::int32_t timeout = 1;
    SnmpResponseData* fallback = nullptr;
};

inline SnmpResponseData* SendRequest(const Request& request) {
    return SnmpManagerRequest(request.host.c_str(), request.port, request.timeout, request.community.c_str(),
                              request.type, request.version, request.oids.data(),
                              static_cast<std::int32_t>(request.oids.size()),
                              static_cast<std::int32_t>(logState.gv_logLevel.load()), request.fallback);
}

inline std::string ValueText(const SnmpValue& value) {
    return fmt::format("{} {}:{}", value.oid, value.type, value.value ? value.value : "(null)");
}

/// "1: .1.3.6.1.2.1.1.5.0 4:name | (null)": the status, then each OID's values.
inline std::string ResponseText(const SnmpResponseData* response) {
    if (!response) return "null";
    std::string text = fmt::format("{}:", response->status);
    for (std::int32_t i = 0; i < response->oidCount; ++i) {
        text += i > 0 ? " | " : " ";
        const SnmpVarList* list = response->results[i];
        if (!list) text += "(null)";
        for (std::int32_t k = 0; list && k < list->valueCount; ++k)
            text += (k > 0 ? ", " : "") + ValueText(*list->values[k]);
    }
    return text;
}

inline std::string AnswerText(const Request& request) {
    const SnmpResponsePtr response(SendRequest(request));
    return ResponseText(response.get());
}

struct SnmpManager : TestAgent {
    SnmpManager() { logState.gv_logLevel = 1; }
};

}  // namespace kv::test

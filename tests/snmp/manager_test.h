// What tests of the manager's one door share.
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

/// One request; what is not said is a get of nothing from nobody.
struct Ask {
    std::uint16_t port = 0;
    std::int32_t type = snmpGet;
    std::vector<const char*> oids = {};
    const char* version = "v2c";
    std::string community = "public";
    std::string host = "127.0.0.1";
    std::int32_t timeout = 1;
    SnmpResponseData* fallback = nullptr;
};

inline SnmpResponseData* Send(const Ask& ask) {
    return SnmpManagerRequest(ask.host.c_str(), ask.port, ask.timeout, ask.community.c_str(), ask.type, ask.version,
                              ask.oids.data(), static_cast<std::int32_t>(ask.oids.size()),
                              static_cast<std::int32_t>(logState.gv_logLevel.load()), ask.fallback);
}

inline std::string Shown(const SnmpValue& value) {
    return fmt::format("{} {}:{}", value.oid, value.type, value.value ? value.value : "(none)");
}

/// "1: .1.3.6.1.2.1.1.5.0 4:name | (none)": the status, then each OID's values.
inline std::string Shown(const SnmpResponseData* response) {
    if (!response) return "nothing";
    std::string text = fmt::format("{}:", response->status);
    for (std::int32_t i = 0; i < response->oidCount; ++i) {
        text += i > 0 ? " | " : " ";
        const SnmpVarList* list = response->results[i];
        if (!list) text += "(none)";
        for (std::int32_t k = 0; list && k < list->valueCount; ++k)
            text += (k > 0 ? ", " : "") + Shown(*list->values[k]);
    }
    return text;
}

inline std::string Answer(const Ask& ask) {
    const SnmpResponsePtr response(Send(ask));
    return Shown(response.get());
}

struct SnmpManager : TestAgent {
    SnmpManager() { logState.gv_logLevel = 1; }
};

}  // namespace kv::test

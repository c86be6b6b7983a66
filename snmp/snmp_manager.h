// The SNMP manager: get, getnext and walk against one device, over UDP, in SNMPv1 and SNMPv2c. Text is narrow here;
// that of an octet string holds the bytes as the device sent them.
#pragma once

#include <cstdint>
#include <memory>

namespace kv {

/// What SnmpManagerRequest does.
inline constexpr std::int32_t snmpGet = 0;
inline constexpr std::int32_t snmpGetNext = 1;
inline constexpr std::int32_t snmpWalk = 2;

/// One value. Its texts are owned; that of its type stands behind that of its OID.
struct SnmpValue {
    char* oid;                 // ".1.3.6..."
    std::int32_t oidLength;    // always 1
    char* type;                // the tag of its type, decimal: "2" integer, "4" octet string, "64" address, ...
    char* value;               // as text; null when the device sent none
    std::int32_t valueLength;  // characters or bytes; 1 for an object identifier, 0 for a 64-bit counter and for none
};

/// The values of one requested OID: one of a get, all below it of a walk.
struct SnmpVarList {
    SnmpValue** values;  // owned; the records stand one behind the other
    std::int32_t valueCount;
};

/// A device's answer to one request.
struct SnmpResponseData {
    char** oids;  // as requested, owned
    std::int32_t oidCount;
    std::int32_t requestType;
    std::uint8_t status;    // 0 an OID has no list, 1 values, 128 to 130 the last value is this exception
    SnmpVarList** results;  // one for each OID; null where nothing arrived for it or for one ahead of it
};

/// Asks one device. Blocks for up to timeoutSeconds for each datagram that it waits for: one for a get, one for each
/// answer of a walk, and for as long as the system looks for a host's name. A walk ends with what it has at the
/// bounds of snmp/manager_walk.h. Callable from several threads at once.
///
/// host: address or name, 255 characters at most. port: its low 16 bits count. timeoutSeconds: 0 or less only looks.
/// community: 254 bytes at most. version: "v1" or "v2c"; "v3" is known and unreadable for any device, and any other
/// text counts as "v1". oids: each begins with a dot; at least one. A text that is null counts as empty.
///
/// Gives a new response, also when a get stays unanswered: its first result is null then and its status 0. Gives
/// fallback as it is when a walk stays unanswered, and when the request cannot be made: a malformed OID, a community
/// that is too long, a negative request type, no memory. Null when the engine cannot be started, the request type is
/// above snmpWalk, or there is no memory for the response. What is new is the caller's, to be released with
/// FreeResponseData.
SnmpResponseData* SnmpManagerRequest(const char* host, std::int32_t port, std::int32_t timeoutSeconds,
                                     const char* community, std::int32_t requestType, const char* version,
                                     const char* const* oids, std::int32_t oidCount, std::int32_t agentLogLevel,
                                     SnmpResponseData* fallback);

/// Null is allowed.
void FreeResponseData(SnmpResponseData* response);

struct FreeResponseDataDeleter {
    void operator()(SnmpResponseData* response) const { FreeResponseData(response); }
};
using SnmpResponsePtr = std::unique_ptr<SnmpResponseData, FreeResponseDataDeleter>;

}  // namespace kv

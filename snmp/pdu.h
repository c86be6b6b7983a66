// A request or an answer on its way through the engine. A PDU belongs to one thread; nothing here throws.
#pragma once

#include <array>
#include <cstdint>
#include <memory>

#include "snmp/tk_vector.h"

namespace kv::snmp {

/// Identifier octets of the message types.
namespace command {
inline constexpr std::uint8_t get = 0xA0;
inline constexpr std::uint8_t getNext = 0xA1;
inline constexpr std::uint8_t response = 0xA2;
inline constexpr std::uint8_t set = 0xA3;
inline constexpr std::uint8_t trapV1 = 0xA4;
inline constexpr std::uint8_t getBulk = 0xA5;
inline constexpr std::uint8_t inform = 0xA6;
inline constexpr std::uint8_t trapV2 = 0xA7;
}  // namespace command

/// Version codes, as messages carry them.
inline constexpr std::int32_t versionV1 = 0;
inline constexpr std::int32_t versionV2c = 1;
inline constexpr std::int32_t versionV3 = 3;

/// The longest community of a request, in bytes; a longer one makes no PDU.
inline constexpr std::size_t maxRequestCommunity = 254;

struct SnmpPdu {
    std::int32_t version;
    char* community;  // owned, terminated
    std::int32_t communityLength;
    std::uint8_t command;
    std::uint8_t receivedCommand;  // command of a parsed message; 0 in a request
    std::int32_t requestId;
    std::int32_t errorStatus;  // 0 for success; of a reply, what the device reports
    std::int32_t errorIndex;   // the variable that the status is about, from 1

    // Of a trap of SNMPv1 only, which the manager neither sends nor takes.
    std::uint32_t* enterpriseOid;  // owned, or null
    std::int32_t enterpriseOidLength;
    std::array<std::uint8_t, 4> agentAddress;
    std::int32_t genericTrap;
    std::int32_t specificTrap;
    std::uint32_t timeStamp;  // hundredths of a second for which the sender has run

    std::int32_t timeoutSeconds;  // of a request: how long to wait for the answer
    std::uint8_t asksForHook;     // of version 3: its message goes through PostProcessMessage
    TkVector varBinds;            // owns its variables
    TkVector* otherVarBinds;      // used instead for trapV1, inform and trapV2; owned, or null
    std::int32_t varBindCount;    // of a parsed message
};

/// A zeroed PDU; the caller's, released with FreeSnmpPdu. Null with an engine line when memory ran out.
[[nodiscard]] SnmpPdu* AllocateAndInitSnmpPdu();

/// A PDU that takes over the variables of a list; the list keeps its nodes, which its holder frees. A null community
/// counts as empty. Null when memory ran out or the community is too long, each with a log line: the variables and
/// nodes of the list are then freed.
[[nodiscard]] SnmpPdu* CreateSnmpPdu(std::int32_t version, const char* community, std::uint8_t command,
                                     std::int32_t requestId, std::int32_t errorStatus, std::int32_t errorIndex,
                                     TkVector* vector);

/// Frees a PDU with all that it owns. Null is allowed.
void FreeSnmpPdu(SnmpPdu* pdu);

/// Frees the community, the enterprise's OID and the record, but no variables. Null is allowed.
void FreeSnmpPduShell(SnmpPdu* pdu);

/// Writes trace lines.
void DisplaySnmpPduInfo(const SnmpPdu* pdu);

struct FreeSnmpPduDeleter {
    void operator()(SnmpPdu* pdu) const { FreeSnmpPdu(pdu); }
};
using SnmpPduPtr = std::unique_ptr<SnmpPdu, FreeSnmpPduDeleter>;

}  // namespace kv::snmp

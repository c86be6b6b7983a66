// What a manager request is made of.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>

#include "snmp/pdu.h"
#include "snmp/snmp_manager.h"
#include "snmp/var_bind.h"

namespace kv::snmp {

/// A list of values for each OID of a request; null for an OID that brought none.
using ResultVectors = std::unique_ptr<VarBindListPtr[]>;

/// Room for the text of a value's type.
inline constexpr std::size_t typeTextRoom = 20;

/// The arguments of one request, as SnmpManagerRequest has them; no text is null but an OID's.
struct ManagerRequest {
    const char* host;
    std::int32_t port;
    std::int32_t timeoutSeconds;
    const char* community;
    std::int32_t requestType;
    const char* version;
    const char* const* oids;
    std::int32_t oidCount;
};

/// All OIDs in one datagram. Null when the request cannot be made; a device that does not answer gives null lists.
ResultVectors SnmpGetOperation(const ManagerRequest& request);

/// Each OID by itself, with getnext until its subtree is left (snmp/manager_walk.h). Null also when the device falls
/// silent.
ResultVectors SnmpWalkOperation(const ManagerRequest& request);

/// True when an OID lies below root; root itself does not.
bool IsOidInSubtree(const std::uint32_t* root, std::int32_t rootLength, const std::uint32_t* oid,
                    std::int32_t oidLength);

/// The answer that a manager request gives; the caller's, released with FreeResponseData. fallback is not looked at.
/// Throws std::bad_alloc.
SnmpResponseData* ConstructResponseData(const char* const* oids, std::int32_t oidCount,
                                        const VarBindListPtr* resultVectors, const SnmpResponseData* fallback,
                                        std::int32_t requestType);

/// How an exchange ended. Any other value is the error status of the reply, which may also be one of these numbers.
namespace exchange_status {
inline constexpr std::uint8_t done = 0;
inline constexpr std::uint8_t outOfMemory = 99;
inline constexpr std::uint8_t notOpened = 100;
inline constexpr std::uint8_t noAnswer = 101;
inline constexpr std::uint8_t undecodable = 103;
}  // namespace exchange_status

/// One datagram out and one in. Null without an answer. A reply that cannot be decoded gives a PDU without variables.
SnmpPduPtr SendAndReceiveSnmpPdu(SnmpPdu* request, const char* host, std::int32_t port, std::uint8_t* status);

/// Starts the engine unless the low byte of gv_agentRunFlag says that it is started: a log of its own, a socket of its
/// own, and the flag set. Blocks for as long as the system looks this computer's own name up, twice. False when a step
/// failed; the next request tries again.
bool StartToolkit();

}  // namespace kv::snmp

// Messages: a PDU to one datagram, and one datagram to a PDU, for SNMPv1 (RFC 1157) and SNMPv2c (RFC 1901, RFC 3416).
//
//     30 82 hh ll                message
//        02 01 vv                version: 0 SNMPv1, 1 SNMPv2c
//        04 nn ..                community
//        A0 or A1 82 hh ll       get or getnext
//           02 01 01             request id
//           02 01 00             error status
//           02 01 01             error index
//           30 82 hh ll          list of variables
//              30 82 hh ll       one variable
//                 06 nn ..       its name
//                 04 00          no value
//
// A trap of SNMPv1 has its sender's OID and address, two kinds of trap and a time instead of id, status and index.
//
// Every constructed item that is sent has a length of three bytes. Parsing takes lengths as AsnParseLength does. A PDU
// belongs to one thread; nothing here throws.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>

#include "snmp/asn.h"
#include "snmp/pdu.h"

namespace kv::snmp {

struct TransportDomainInfo;

/// The size of the buffers that messages are built in and received into.
inline constexpr std::int32_t messageBufferSize = 8000;

/// A received message of at least this length is dropped.
inline constexpr std::int32_t maxReceivedMessage = 7990;

inline constexpr std::size_t maxReceivedCommunity = 256;  // bytes; a longer one drops the message
inline constexpr std::int32_t maxReceivedSubIds = 128;    // of one name; the rest is taken for the value

/// What parsing came to.
namespace parse_result {
inline constexpr std::uint8_t dropped = 0;
inline constexpr std::uint8_t done = 1;
inline constexpr std::uint8_t outOfMemory = 99;
inline constexpr std::uint8_t brokenList = 255;
}  // namespace parse_result

/// Where the items of a message that is being built begin and end, in its buffer.
struct MessagePositions {
    std::uint8_t* message;
    std::uint8_t* messageHeaderEnd;
    std::uint8_t* pdu;
    std::uint8_t* pduHeaderEnd;
    std::uint8_t* list;
    std::uint8_t* listHeaderEnd;
    std::uint8_t* end;
};

/// Writes a message. The size of the buffer goes in, that of the message comes out. Absent when the message cannot be
/// built. size stays what it was then, and when the variables do not fit, which leaves an error status in the PDU.
/// Version 3 gives bytes that no engine can read.
[[nodiscard]] std::optional<MessagePositions> BuildSnmpMsg(std::uint8_t* buffer, std::int32_t* size, SnmpPdu* pdu);

/// BuildSnmpMsg and, for version 3, the hook of snmp/processing_hooks.h: 1, or 0 when one of them fails.
int CreateSnmpMsgForPdu(std::uint8_t* buffer, std::int32_t* size, SnmpPdu* pdu);

/// Builds a PDU's message and sends it: 1 sent, 0 not sent. When the message cannot be built or does not fit, the whole
/// buffer is sent as it is, with a log line.
[[nodiscard]] int SendSnmpPdu(TransportDomainInfo* info, SnmpPdu* pdu);

/// Receives one message and parses it into a fresh PDU: done or dropped. Does not wait for the message.
[[nodiscard]] std::uint8_t ReadAndParseSnmpMessage(TransportDomainInfo* info, SnmpPdu* pdu);

/// Parses a whole message into a fresh PDU: done or dropped. A list of variables that is broken, or for whose records
/// there is no memory, counts as done, without variables. A value for which there is no memory, or that is a broken
/// object identifier, drops the message. The PDU stays the caller's on every path. The buffer goes on for asnReadAhead
/// bytes behind length.
[[nodiscard]] std::uint8_t ParseSnmpMessageForPdu(const std::uint8_t* buffer, std::int32_t length, SnmpPdu* pdu);

/// Parses version and community: done or dropped. After a failure position may be null.
[[nodiscard]] std::uint8_t ParseSnmpV1V2Message(const std::uint8_t** position, std::int32_t* remaining, SnmpPdu* pdu);

/// Parses everything from the PDU's header on: any result. Without done the PDU has no variables.
[[nodiscard]] std::uint8_t ParseSnmpMessage(const std::uint8_t** position, std::int32_t* remaining, SnmpPdu* pdu);

/// Parses the list of variables, which must fill what remains: any result. Without done the PDU has those ahead of the
/// failure.
[[nodiscard]] std::uint8_t ParsePdu(SnmpPdu* pdu, const std::uint8_t* position, std::int32_t remaining);

/// The error status of SNMPv1 that stands for one of SNMPv2c; 5, a general error, for one that is not known.
std::int32_t MapToSNMPv1Error(std::int32_t status);

}  // namespace kv::snmp

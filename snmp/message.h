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
// A trap of SNMPv1 has its sender's OID and address, two kinds of trap and a time in the place of id, status and index.
//
// Every constructed item that is sent has a length of three bytes. Parsing takes any valid form.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>

#include "snmp/asn.h"
#include "snmp/pdu.h"

namespace kv::snmp {

struct TransportDomainInfo;

/// Size of the buffers that messages are built in and received into.
inline constexpr std::int32_t messageBufferSize = 8000;

/// A received message of this length or more is dropped.
inline constexpr std::int32_t maxReceivedMessage = 7990;

inline constexpr std::size_t maxReceivedCommunity = 256;  // bytes
inline constexpr std::int32_t maxReceivedSubIds = 128;    // of one name

/// What parsing came to.
namespace parse_result {
inline constexpr std::uint8_t dropped = 0;
inline constexpr std::uint8_t done = 1;
inline constexpr std::uint8_t outOfMemory = 99;
inline constexpr std::uint8_t brokenList = 255;
}  // namespace parse_result

/// Where the items of a message under construction begin and end, in its buffer.
struct MessagePositions {
    std::uint8_t* message;
    std::uint8_t* messageHeaderEnd;
    std::uint8_t* pdu;
    std::uint8_t* pduHeaderEnd;
    std::uint8_t* list;
    std::uint8_t* listHeaderEnd;
    std::uint8_t* end;
};

/// Writes a message. size: that of the buffer going in, the message's coming out; it stays what it was when the
/// variables do not fit, and when the message cannot be built, which gives none. Version 3 gives bytes that no engine
/// can read.
[[nodiscard]] std::optional<MessagePositions> BuildSnmpMsg(std::uint8_t* buffer, std::int32_t* size, SnmpPdu* pdu);

/// 1, or 0 when the message cannot be built, or the hook of a message of version 3 fails (snmp/processing_hooks.h).
int CreateSnmpMsgForPdu(std::uint8_t* buffer, std::int32_t* size, SnmpPdu* pdu);

/// Builds a PDU's message and sends it; 1 sent, 0 not. What a failed build left in the buffer is sent all the same.
[[nodiscard]] int SendSnmpPdu(TransportDomainInfo* info, SnmpPdu* pdu);

/// Receives one message and parses it into a fresh PDU.
[[nodiscard]] std::uint8_t ReadAndParseSnmpMessage(TransportDomainInfo* info, SnmpPdu* pdu);

/// Parses a whole message into a fresh PDU: done or dropped. A list of variables that is broken, or whose records are
/// too much for the memory, counts as done, with no variables; a value that is too much for it drops the message. The
/// PDU stays the caller's on every path. The buffer goes on for asnReadAhead bytes behind length.
[[nodiscard]] std::uint8_t ParseSnmpMessageForPdu(const std::uint8_t* buffer, std::int32_t length, SnmpPdu* pdu);

/// Version and community; done or dropped.
[[nodiscard]] std::uint8_t ParseSnmpV1V2Message(const std::uint8_t** position, std::int32_t* remaining, SnmpPdu* pdu);

/// Everything from the PDU's header on; any result.
[[nodiscard]] std::uint8_t ParseSnmpMessage(const std::uint8_t** position, std::int32_t* remaining, SnmpPdu* pdu);

/// The list of variables, which fills what remains; any result.
[[nodiscard]] std::uint8_t ParsePdu(SnmpPdu* pdu, const std::uint8_t* position, std::int32_t remaining);

/// The error status of SNMPv1 that stands for one of SNMPv2c.
std::int32_t MapToSNMPv1Error(std::int32_t status);

}  // namespace kv::snmp

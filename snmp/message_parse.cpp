#include <algorithm>
#include <array>
#include <cstring>
#include <new>

#include "snmp/message.h"
#include "snmp/toolkit_log.h"
#include "snmp/udp_transport.h"
#include "snmp/var_bind.h"

namespace kv::snmp {

namespace {

std::uint8_t Dropped(const char* line) {
    TKLOG(1, line);
    return parse_result::dropped;
}

std::uint8_t OutOfMemory() {
    TKLOG(1, "Unable to allocate buffer !!! \n");
    return parse_result::outOfMemory;
}

enum class Taking { asAnswer, dropped, refused };

/// How a message type is taken, whatever the request was, and its name in the log.
struct CommandRow {
    std::uint8_t command;
    Taking taking;
    const char* name;
};

constexpr CommandRow commandRows[] = {
    {command::get, Taking::asAnswer, "GET-REQ\n"},
    {command::getNext, Taking::asAnswer, "GET-NEXT-REQ\n"},
    {command::response, Taking::asAnswer, "GET-RESPONSE\n"},
    {command::set, Taking::asAnswer, "SET-REQ\n"},
    {command::trapV1, Taking::dropped, ""},
    {command::getBulk, Taking::asAnswer, "GET-BULK-REQ\n"},
    {command::inform, Taking::refused, "INFORM-REQ\n"},  // refused before its name could be logged
    {command::trapV2, Taking::dropped, ""},
};

/// Null for a type that is refused.
const CommandRow* CommandRowFor(std::uint8_t command) {
    for (const CommandRow& row : commandRows)
        if (row.command == command && row.taking != Taking::refused) return &row;
    return nullptr;
}

/// Parses one of the numbers ahead of the list; false when it is not there.
bool ParseField(const std::uint8_t** position, std::int32_t* remaining, std::int32_t* value) {
    std::uint8_t type = 0;
    *position = AsnParseInteger(*position, remaining, &type, value, sizeof *value);
    return *position != nullptr && type == tag::integer;
}

std::uint8_t ParseFields(const std::uint8_t** position, std::int32_t* remaining, SnmpPdu* pdu) {
    if (!ParseField(position, remaining, &pdu->requestId) || *remaining == 0) {
        return Dropped("Unable to decode reqid\n");
    }
    if (!ParseField(position, remaining, &pdu->errorStatus) || *remaining == 0) {
        return Dropped("Unable to decode errstatus\n");
    }
    if (!ParseField(position, remaining, &pdu->errorIndex)) return Dropped("Unable to decode errindex\n");
    TKLOG(2, "Error Status\t\t= %ld\n", pdu->errorStatus);
    TKLOG(2, "Error Index\t\t\t= %ld\n", pdu->errorIndex);
    return parse_result::done;
}

/// One variable of a list, as it lies in the message.
struct ReceivedVariable {
    std::array<std::uint32_t, maxReceivedSubIds> oid;
    std::int32_t oidLength;
    std::uint8_t type;
    std::int32_t valueLength;
    const std::uint8_t* value;  // its header
};

std::uint8_t TakeValue(VarBind& varBind, const ReceivedVariable& variable) {
    if (variable.valueLength < 1) return parse_result::done;
    std::int32_t length = variable.valueLength;
    varBind.value = DecodeAsnSyntaxValue(variable.type, AsnSkipHeader(variable.value), &length);
    if (varBind.value == nullptr) return Dropped("Unable to allocate buffer !!! \n");
    varBind.ownsValue = 1;
    varBind.valueLength = length;
    return parse_result::done;
}

std::uint8_t AppendVariable(SnmpPdu* pdu, const ReceivedVariable& variable, std::int32_t number) {
    VarBindPtr varBind = MakeNamedVarBind(variable.oid.data(), variable.oidLength);
    if (varBind == nullptr) return OutOfMemory();
    if (const std::uint8_t result = TakeValue(*varBind, variable); result != parse_result::done) return result;
    varBind->type = variable.type;
    varBind->position = number;
    varBind->received = 1;
    auto* node = new (std::nothrow) TkVectorNode{.data = varBind.get(), .next = nullptr};
    if (node == nullptr) return OutOfMemory();
    AddElement(&pdu->varBinds, node);
    varBind.release();
    return parse_result::done;
}

}  // namespace

std::uint8_t ParsePdu(SnmpPdu* pdu, const std::uint8_t* position, std::int32_t remaining) {
    TKLOG(3, "\t Inside ParsePdu() \n");
    if (remaining == 0) return parse_result::dropped;
    std::uint8_t type = 0;
    std::int32_t listRemaining = remaining;
    const std::uint8_t* at = AsnParseHeader(position, &listRemaining, &type);
    if (at == nullptr || type != tag::sequence || remaining - (at - position) != listRemaining) {
        TKLOG(1, "not enough space for varlist");
        return parse_result::brokenList;
    }
    std::int32_t number = 0;
    while (listRemaining > 0) {
        ++number;
        ReceivedVariable variable;
        variable.oidLength = maxReceivedSubIds;
        at = SnmpParseVarBind(at, variable.oid.data(), &variable.oidLength, &variable.type, &variable.valueLength,
                              &variable.value, &listRemaining);
        if (at == nullptr) {
            TKLOG(2, "Unable to parse the varbind #%d\n", number);
            return parse_result::brokenList;
        }
        const std::uint8_t result = AppendVariable(pdu, variable, number);
        if (result != parse_result::done) return result;
    }
    pdu->varBindCount = number;
    return parse_result::done;
}

std::uint8_t ParseSnmpMessage(const std::uint8_t** position, std::int32_t* remaining, SnmpPdu* pdu) {
    TKLOG(3, "\t Inside ParseSnmpMessage() \n");
    if (*position == nullptr || *remaining == 0) return Dropped("Unable to decode header and community \n");
    *position = AsnParseHeader(*position, remaining, &pdu->command);
    if (*position == nullptr || *remaining == 0) return Dropped("Unable to decode header\n");
    const CommandRow* row = CommandRowFor(pdu->command);
    if (row == nullptr) return Dropped("\n \t @@@@@@@@@@ Invalid Command Type @@@@@@@@ \n");
    pdu->receivedCommand = pdu->command;
    TKLOG(2, "\n Message Type\t\t=\t");
    TKLOG(2, row->name);
    TKLOG(3, "\n The VarBind length\t=\t%d \n", *remaining);
    if (row->taking == Taking::dropped) return Dropped("\n\nSince trap message has been received packet is dropped.\n");
    if (ParseFields(position, remaining, pdu) != parse_result::done) return parse_result::dropped;
    TKLOG(2, "\n**************************************************\n");
    InitVector(&pdu->varBinds, nullptr);
    const std::uint8_t result = ParsePdu(pdu, *position, *remaining);
    if (result != parse_result::done) FreeVarBindList(&pdu->varBinds);
    return result;
}

std::uint8_t ParseSnmpV1V2Message(const std::uint8_t** position, std::int32_t* remaining, SnmpPdu* pdu) {
    TKLOG(3, "\t Inside ParseSnmpV1V2Message() \n");
    if (!ParseField(position, remaining, &pdu->version)) return Dropped("Unable to decode version\n");
    std::uint8_t type = 0;
    std::array<std::uint8_t, maxReceivedCommunity> community;
    std::size_t size = community.size();
    *position = AsnParseString(*position, remaining, &type, community.data(), &size);
    if (*position == nullptr || type != tag::octetString) return Dropped("Unable to decode community \n");
    pdu->community = new (std::nothrow) char[size + 1];
    if (pdu->community == nullptr) {
        TKLOG(1, "Unable to allocate buffer !!! \n");
        return Dropped("PACKET DROPPED !!! \n");
    }
    std::memcpy(pdu->community, community.data(), size);
    pdu->community[size] = '\0';
    pdu->communityLength = static_cast<std::int32_t>(size);
    TKLOG(2, "\n************ Rcvd Snmp PDU Informations **********\n");
    if (pdu->version == versionV1) {
        TKLOG(2, "Version \t\t\t=\tSNMP_V1\n");
    } else if (pdu->version == versionV2c) {
        TKLOG(2, "Version \t\t\t=\tSNMP_V2C\n");
    } else {
        return Dropped("Version is not a SNMP_V1 or SNMP_V2C\n");
    }
    TKLOG(2, "Community Name\t\t=\t%s\n", pdu->community);
    return parse_result::done;
}

std::uint8_t ParseSnmpMessageForPdu(const std::uint8_t* buffer, std::int32_t length, SnmpPdu* pdu) {
    TKLOG(3, "\t Inside ParseSnmpMessageForPdu() \n");
    if (length >= maxReceivedMessage) return Dropped("Received too big snmp message ...\n");
    std::uint8_t type = 0;
    std::int32_t contentLength = length;
    const std::uint8_t* position = AsnParseHeader(buffer, &contentLength, &type);
    TKLOG(2, "\nThe Length of the received Message : %d\n", length);
    if (position == nullptr || type != tag::sequence) return Dropped("Unable to decode auth header type\n");
    // The length of the datagram bounds what follows, and not that of the content: it is wider by the header's size.
    std::int32_t remaining = length;
    if (pdu->version != versionV3) {  // true for a fresh PDU: every message of the manager has an envelope
        const std::uint8_t result = ParseSnmpV1V2Message(&position, &remaining, pdu);
        if (result != parse_result::done) {
            TKLOG(1, "PACKET DROPPED !!! \n");
            return result;
        }
    }
    if (ParseSnmpMessage(&position, &remaining, pdu) == parse_result::dropped) return Dropped("PACKET DROPPED !!! \n");
    return parse_result::done;
}

std::uint8_t ReadAndParseSnmpMessage(TransportDomainInfo* info, SnmpPdu* pdu) {
    TKLOG(3, "\t Inside ReadAndParseSnmpMessage() \n");
    std::array<std::uint8_t, messageBufferSize + asnReadAhead> buffer;
    std::int32_t length = 0;
    if (ReadSnmpMessage(info, buffer.data(), &length) == 0) {
        TKLOG(2, "Error while reading the SNMP message\n");
        return parse_result::dropped;
    }
    std::fill_n(buffer.begin() + length, asnReadAhead, std::uint8_t{0});
    const std::uint8_t result = ParseSnmpMessageForPdu(buffer.data(), length, pdu);
    if (result == parse_result::outOfMemory) TKLOG(1, "Unable to allocate memory !!!\n");
    if (result == parse_result::dropped) TKLOG(2, "Unable to parse the snmp message\n");
    return result;
}

}  // namespace kv::snmp

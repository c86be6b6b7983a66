#include <algorithm>
#include <array>
#include <cstddef>
#include <string_view>

#include "snmp/message.h"
#include "snmp/processing_hooks.h"
#include "snmp/toolkit_log.h"
#include "snmp/udp_transport.h"
#include "snmp/value_text.h"
#include "snmp/var_bind.h"

namespace kv::snmp {

namespace {

constexpr std::int32_t constructedHeaderSize = 4;  // as AsnBuildSequence writes it
constexpr std::int32_t tooBigStatus = 1;

/// Where the next item goes, and how many bytes are left there.
struct Writer {
    std::uint8_t* position;
    std::int32_t remaining;
};

bool Failed(const char* line) {
    TKLOG(1, line);
    return false;
}

/// Reserves the header of a constructed item; CloseItem writes its length.
bool OpenItem(Writer& out, std::uint8_t tag, std::uint8_t*& item, std::uint8_t*& headerEnd) {
    item = out.position;
    out.position = AsnBuildSequence(out.position, &out.remaining, tag, 0);
    headerEnd = out.position;
    return out.position != nullptr;
}

/// Writes the length of a constructed item; gives the end of its header, or null.
std::uint8_t* CloseItem(std::uint8_t* item, const std::uint8_t* headerEnd, std::uint8_t tag, const std::uint8_t* end) {
    std::int32_t room = constructedHeaderSize;
    return AsnBuildSequence(item, &room, tag, static_cast<std::uint32_t>(end - headerEnd));
}

bool BuildField(Writer& out, std::int32_t value) {
    out.position = AsnBuildInteger(out.position, &out.remaining, tag::integer, &value, sizeof value);
    return out.position != nullptr;
}

/// The message's header, version and community.
bool BuildEnvelope(Writer& out, MessagePositions& at, const SnmpPdu& pdu) {
    if (pdu.version != versionV1 && pdu.version != versionV2c) {
        return Failed("Supported SNMP versions are V1, V2c and V3.\n");
    }
    if (!OpenItem(out, tag::sequence, at.message, at.messageHeaderEnd)) {
        return Failed("Unable to encode SNMP message length and sequnce type. !!!\n");
    }
    if (!BuildField(out, pdu.version)) return Failed("Unable to encode snmp_auth\n");
    const auto* community = reinterpret_cast<const std::uint8_t*>(pdu.community);
    out.position = AsnBuildString(out.position, &out.remaining, tag::octetString, community,
                                  static_cast<std::size_t>(pdu.communityLength));
    return out.position != nullptr || Failed("Unable to encode snmp_auth\n");
}

/// Request id, error status and error index. The status is written before it changes, so it changes in memory only.
bool BuildFields(Writer& out, SnmpPdu& pdu) {
    if (!BuildField(out, pdu.requestId)) return Failed("Unable to encode reqid \n");
    if (!BuildField(out, pdu.errorStatus)) return Failed("Unable to encode errstatus\n");
    if (pdu.command == command::getBulk) pdu.errorStatus = 0;
    if (pdu.version == versionV1) pdu.errorStatus = MapToSNMPv1Error(pdu.errorStatus);
    return BuildField(out, pdu.errorIndex) || Failed("Unable to encode errindex\n");
}

/// What a trap of SNMPv1 has instead of them.
bool BuildTrapFields(Writer& out, const SnmpPdu& pdu) {
    out.position =
        AsnBuildObjectId(out.position, &out.remaining, tag::objectId, pdu.enterpriseOid, pdu.enterpriseOidLength);
    if (out.position == nullptr) return Failed("Unable to encode enterprise of the manager.\n");
    out.position =
        AsnBuildString(out.position, &out.remaining, tag::ipAddress, pdu.agentAddress.data(), pdu.agentAddress.size());
    if (out.position == nullptr) return Failed("Unable to encode  ip address.\n");
    if (!BuildField(out, pdu.genericTrap)) return Failed("Unable to encode generic trap type.\n");
    if (!BuildField(out, pdu.specificTrap)) return Failed("Unable to encode specific trap type.\n");
    out.position = AsnBuildUnsigned(out.position, &out.remaining, tag::timeTicks, &pdu.timeStamp, sizeof pdu.timeStamp);
    return out.position != nullptr || Failed("Unable to encode specific time stamp.\n");
}

const TkVector* ListInUse(const SnmpPdu& pdu) {
    switch (pdu.command) {
        case command::get:
        case command::getNext:
        case command::set:
        case command::getBulk:
            return &pdu.varBinds;
        default:
            return pdu.otherVarBinds;
    }
}

/// Leaves the writer as it was when the variable does not fit.
bool BuildVariable(Writer& out, const VarBind& varBind, std::uint8_t command) {
    std::array<std::uint8_t, 4> address{};
    const void* value = varBind.value;
    std::int32_t length = varBind.valueLength;
    if (command != command::response && varBind.type == tag::ipAddress && value != nullptr) {
        const std::string_view text = static_cast<const char*>(value);
        ConvertToIpAddFromString(address.data(), text, text.size());
        value = address.data();
        length = static_cast<std::int32_t>(address.size());
    }
    std::int32_t remaining = out.remaining;
    std::uint8_t* const end =
        SnmpBuildVarBind(out.position, varBind.oid, &varBind.oidLength, varBind.type, length, value, &remaining);
    if (end == nullptr) return false;
    out = {.position = end, .remaining = remaining};
    return true;
}

/// False for a broken list. Variables that do not fit leave an error status in the PDU.
bool BuildVariables(Writer& out, const MessagePositions& at, SnmpPdu& pdu) {
    const TkVector* list = ListInUse(pdu);
    if (pdu.errorStatus != 0 || list == nullptr) return true;
    const TkVectorNode* node = list->head;
    for (std::int32_t number = 1; number <= list->count; ++number, node = node->next) {
        if (node == nullptr) return Failed("nodePtr value is NULL\n");
        if (!BuildVariable(out, *static_cast<const VarBind*>(node->data), pdu.command)) {
            if (pdu.receivedCommand == command::getBulk) return true;  // those that fit are an answer
            TKLOG(1, "\n 1. Too big respone PDU\n");
            pdu.errorStatus = tooBigStatus;
            pdu.errorIndex = 0;
            return true;
        }
        if (CloseItem(at.list, at.listHeaderEnd, tag::sequence, out.position) == nullptr) {
            pdu.errorStatus = tooBigStatus;
            pdu.errorIndex = number;
            return true;
        }
    }
    return true;
}

/// Writes the lengths of the PDU and of the whole.
bool CloseMessage(const MessagePositions& at, std::uint8_t command) {
    if (CloseItem(at.pdu, at.pduHeaderEnd, command, at.end) != at.pduHeaderEnd) return Failed("Internal error\n");
    return CloseItem(at.message, at.messageHeaderEnd, tag::sequence, at.end) != nullptr ||
           Failed("Unable to encode message header.\n");
}

}  // namespace

std::int32_t MapToSNMPv1Error(std::int32_t status) {
    switch (status) {
        case 0:
        case 1:
        case 2:
        case 3:
        case 4:
        case 5:
            return status;
        case 6:
        case 11:
        case 14:
        case 15:
        case 16:
        case 17:
        case 18:
            return 2;
        case 7:
        case 8:
        case 9:
        case 10:
        case 12:
            return 3;
        default:
            return 5;
    }
}

std::optional<MessagePositions> BuildSnmpMsg(std::uint8_t* buffer, std::int32_t* size, SnmpPdu* pdu) {
    TKLOG(3, "\t Inside BuildSnmpMsg() \n");
    MessagePositions at{};
    Writer out{.position = buffer, .remaining = *size};
    // Version 3 has no envelope: the message and its content both begin where the PDU does, and the message's header is
    // written over the PDU's.
    at.message = at.messageHeaderEnd = buffer;
    if (pdu->version != versionV3 && !BuildEnvelope(out, at, *pdu)) return std::nullopt;
    if (!OpenItem(out, pdu->command, at.pdu, at.pduHeaderEnd)) {
        TKLOG(1, "Unable to encode response PDU with reqId\n");
        return std::nullopt;
    }
    if (!(pdu->command == command::trapV1 ? BuildTrapFields(out, *pdu) : BuildFields(out, *pdu))) return std::nullopt;
    if (!OpenItem(out, tag::sequence, at.list, at.listHeaderEnd)) {
        TKLOG(1, "not enough space in output packet");
        return std::nullopt;
    }
    if (!BuildVariables(out, at, *pdu)) return std::nullopt;
    at.end = out.position;
    if (pdu->errorStatus != 0) return at;
    if (!CloseMessage(at, pdu->command)) return std::nullopt;
    *size = static_cast<std::int32_t>(at.end - at.message);
    return at;
}

int CreateSnmpMsgForPdu(std::uint8_t* buffer, std::int32_t* size, SnmpPdu* pdu) {
    TKLOG(3, "\t Inside CreateSnmpMsgForPdu() \n");
    if (!BuildSnmpMsg(buffer, size, pdu)) return 0;
    return pdu->version == versionV3 && pdu->asksForHook != 0 ? PostProcessMessage(buffer, size, pdu) : 1;
}

int SendSnmpPdu(TransportDomainInfo* info, SnmpPdu* pdu) {
    TKLOG(3, "\t Inside SendSnmpPdu() \n");
    // Zero between two messages: after a failed build all of it is sent, and no memory of this process may go with it.
    static thread_local std::array<std::uint8_t, messageBufferSize> buffer{};
    std::int32_t size = messageBufferSize;
    CreateSnmpMsgForPdu(buffer.data(), &size, pdu);
    if (size == messageBufferSize)
        Log1("\t SendSnmpPdu :: the request to %s cannot be built or does not fit. The buffer goes out as it is \n",
             info->address->remoteHost.data());
    const int sent = SendSnmpTrapMessage(info, buffer.data(), static_cast<std::size_t>(size));
    std::fill_n(buffer.begin(), size, std::uint8_t{0});
    return sent;
}

}  // namespace kv::snmp

#include "snmp/manager_request.h"

#include <charconv>
#include <limits>
#include <string_view>

#include "snmp/toolkit_log.h"

namespace kv::snmp {

namespace {

std::int32_t VersionCode(std::string_view version) {
    if (version == "v2c") return versionV2c;
    if (version == "v3") return versionV3;
    return versionV1;
}

/// True when a part wraps, as ConvertTextToInteger has it.
bool HasPartBeyond32Bits(std::string_view text) {
    for (std::size_t dot = text.find('.'); dot != text.npos; dot = text.find('.', dot + 1)) {
        std::uint64_t number = 0;
        std::from_chars(text.data() + dot + 1, text.data() + text.size(), number);
        if (number > std::numeric_limits<std::uint32_t>::max()) return true;
    }
    return false;
}

}  // namespace

std::int32_t ParseRequestedOid(const ManagerRequest& request, std::int32_t index, SubIds& oid) {
    const char* text = request.oids[index] ? request.oids[index] : "";
    const std::int32_t length = ConvertToOidOrIpFromString(oid, text, false);
    if (length == -1) {
        PrintToConsole("Invalid OID Format\n");
        // Only a walk asks for one OID after the other.
        const bool wasAsked = request.requestType == snmpWalk && index > 0;
        Log1("\t SnmpManagerRequest :: \"%s\" is not an OID: numbers, a dot ahead of each, no blanks. %s %s \n", text,
             request.host, wasAsked ? "is asked no further, and what it gave is dropped" : "is not asked");
    } else if (length == 0) {
        Log1("\t SnmpManagerRequest :: the numbers of \"%s\" do not match its dots: %s is asked for an empty OID \n",
             text, request.host);
    } else if (HasPartBeyond32Bits(text)) {
        Log1("\t SnmpManagerRequest :: a number of \"%s\" does not fit 32 bits: another OID is asked for \n", text);
    }
    return length;
}

bool AddRequestVarBind(RequestVarBinds& varBinds, const std::uint32_t* oid, std::int32_t oidLength) {
    VarBindPtr varBind(CreateAVarBind(oid, oidLength, tag::octetString, nullptr, 0));
    if (!varBind) return false;
    AddElement(&varBinds.list, new TkVectorNode{varBind.get(), nullptr});
    static_cast<void>(varBind.release());
    return true;
}

SnmpPduPtr MakeRequestPdu(const ManagerRequest& request, std::uint8_t command, RequestVarBinds& varBinds) {
    SnmpPduPtr pdu(CreateSnmpPdu(VersionCode(request.version), request.community, command, requestId,
                                 requestErrorStatus, requestErrorIndex, &varBinds.list));
    FreeVector(&varBinds.list);
    if (pdu) pdu->timeoutSeconds = request.timeoutSeconds;
    return pdu;
}

ResultVectors MakeResultVectors(const ManagerRequest& request) {
    return ResultVectors(new VarBindListPtr[static_cast<std::size_t>(request.oidCount)]);
}

bool IsUnreadable(const SnmpPdu& answer, std::uint8_t status) {
    return status == exchange_status::undecodable && answer.errorStatus == 0;
}

}  // namespace kv::snmp

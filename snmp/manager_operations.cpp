#include "snmp/manager_operations.h"

#include <algorithm>

#include "snmp/manager_request.h"
#include "snmp/manager_walk.h"
#include "snmp/toolkit_log.h"

namespace kv::snmp {

namespace {

/// Fills in the variables of a get; false when an OID is malformed.
bool AddGetVarBinds(const ManagerRequest& request, RequestVarBinds& varBinds) {
    for (std::int32_t i = 0; i < request.oidCount; ++i) {
        SubIds oid;
        const std::int32_t length = ParseRequestedOid(request, i, oid);
        if (length == -1) return false;
        if (!AddRequestVarBind(varBinds, oid.get(), length)) {
            TKLOG(1, "Error while creating Varbind \n");
            PrintToConsole("Error while creating Varbind \n");
            return false;
        }
    }
    return true;
}

SnmpPduPtr MakeGetPdu(const ManagerRequest& request, RequestVarBinds& varBinds) {
    SnmpPduPtr pdu;
    if (request.requestType == snmpGet) pdu = MakeRequestPdu(request, command::get, varBinds);
    if (request.requestType == snmpGetNext) pdu = MakeRequestPdu(request, command::getNext, varBinds);
    if (!pdu) TKLOG(1, "Unable to create the SnmpPdu!!!\n");
    return pdu;
}

/// Says what the results do not show. A list of variables that is broken reads as an empty one.
void LogGetAnswer(const ManagerRequest& request, const SnmpPdu& answer, std::uint8_t status) {
    if (IsUnreadable(answer, status)) {
        Log1("\t SnmpGetOperation :: %s sends what cannot be read \n", request.host);
        return;
    }
    if (answer.errorStatus != 0)
        Log1("\t SnmpGetOperation :: %s reports the error status %d at value %d \n", request.host, answer.errorStatus,
             answer.errorIndex);
    const std::int32_t count = answer.varBinds.count;
    if (count > request.oidCount || (count < request.oidCount && answer.errorStatus == 0))
        Log1("\t SnmpGetOperation :: %s sent %d values for %d OIDs \n", request.host, count, request.oidCount);
}

/// One list for each variable of the answer, up to the first exception.
void TakeGetAnswer(const ManagerRequest& request, TkVector* answer, VarBindListPtr* results) {
    const std::int32_t count = std::min(answer->count, request.oidCount);
    const TkVectorNode* node = answer->head;
    for (std::int32_t i = 0; i < count && node; ++i, node = node->next) {
        results[i] = MakeVarBindList();
        if (!results[i]) return;
        CopyVarBind(results[i].get(), answer, i + 1);
        if (IsException(static_cast<const VarBind*>(node->data)->type)) return;
    }
}

}  // namespace

ResultVectors SnmpGetOperation(const ManagerRequest& request) {
    TKLOG(3, "\t Inside SnmpGetOperation() \n");
    RequestVarBinds varBinds;
    if (!AddGetVarBinds(request, varBinds)) return nullptr;
    const SnmpPduPtr pdu = MakeGetPdu(request, varBinds);
    if (!pdu) return nullptr;
    ResultVectors results = MakeResultVectors(request);
    std::uint8_t status = 0;
    const SnmpPduPtr response = SendAndReceiveSnmpPdu(pdu.get(), request.host, request.port, &status);
    if (!response) return results;
    LogGetAnswer(request, *response, status);
    TakeGetAnswer(request, &response->varBinds, results.get());
    return results;
}

ResultVectors SnmpWalkOperation(const ManagerRequest& request) {
    TKLOG(3, "\t Inside SnmpWalkOperation() \n");
    return Walk(request).Run();
}

bool IsOidInSubtree(const std::uint32_t* root, std::int32_t rootLength, const std::uint32_t* oid,
                    std::int32_t oidLength) {
    return oid && rootLength < oidLength && std::equal(root, root + rootLength, oid);
}

}  // namespace kv::snmp

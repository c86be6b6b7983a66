#include "snmp/pdu.h"

#include <new>
#include <string_view>

#include "snmp/toolkit_log.h"
#include "snmp/var_bind.h"

namespace kv::snmp {

namespace {

constexpr std::size_t communityRoom = maxRequestCommunity + 1;

/// Whether a command has a list of its own on the heap.
bool UsesOtherList(std::uint8_t command) {
    return command == command::trapV1 || command == command::inform || command == command::trapV2;
}

/// The list that will hold the variables; null when memory ran out.
TkVector* PrepareList(SnmpPdu& pdu) {
    if (!UsesOtherList(pdu.command)) {
        InitVector(&pdu.varBinds, nullptr);
        return &pdu.varBinds;
    }
    pdu.otherVarBinds = MakeVarBindList().release();
    return pdu.otherVarBinds;
}

/// Adds nodes for all variables of a list. False, with no node added, when memory ran out.
bool AddAll(TkVector* target, const TkVector* vector) {
    for (const TkVectorNode* source = vector->head; source; source = source->next) {
        auto* node = new (std::nothrow) TkVectorNode{source->data, nullptr};
        if (!node) {
            FreeVector(target);
            return false;
        }
        AddElement(target, node);
    }
    return true;
}

bool StoreCommunity(SnmpPdu& pdu, std::string_view community) {
    pdu.community = new (std::nothrow) char[communityRoom]{};
    if (!pdu.community) return false;
    community.copy(pdu.community, community.size());
    pdu.communityLength = static_cast<std::int32_t>(community.size());
    return true;
}

bool TakeOver(SnmpPdu& pdu, const TkVector* vector) {
    TkVector* target = PrepareList(pdu);
    return target && AddAll(target, vector);
}

}  // namespace

SnmpPdu* AllocateAndInitSnmpPdu() {
    auto* pdu = new (std::nothrow) SnmpPdu{};
    if (!pdu) TKLOG(1, "Unable to allocate buffer !!! \n");
    return pdu;
}

SnmpPdu* CreateSnmpPdu(std::int32_t version, const char* community, std::uint8_t command, std::int32_t requestId,
                       std::int32_t errorStatus, std::int32_t errorIndex, TkVector* vector) {
    TKLOG(3, "\t Inside CreateSnmpPdu() \n");
    const std::string_view name = community ? community : "";
    if (name.size() > maxRequestCommunity) {
        Log1("\t CreateSnmpPdu :: the community has %d bytes, and %d are the most \n", name.size(),
             maxRequestCommunity);
        FreeVarBindList(vector);
        return nullptr;
    }
    SnmpPduPtr pdu(AllocateAndInitSnmpPdu());
    if (pdu) {
        pdu->version = version;
        pdu->command = command;
        pdu->requestId = requestId;
        pdu->errorStatus = errorStatus;
        pdu->errorIndex = errorIndex;
    }
    if (!pdu || !StoreCommunity(*pdu, name) || !TakeOver(*pdu, vector)) {
        TKLOG(2, "Unable to allocate memory\n");
        FreeVarBindList(vector);
        return nullptr;
    }
    return pdu.release();
}

void FreeSnmpPdu(SnmpPdu* pdu) {
    if (!pdu) return;
    VarBindListPtr(pdu->otherVarBinds).reset();
    if (!UsesOtherList(pdu->command)) FreeVarBindList(&pdu->varBinds);
    FreeSnmpPduShell(pdu);
}

void FreeSnmpPduShell(SnmpPdu* pdu) {
    if (!pdu) return;
    delete[] pdu->community;
    delete[] pdu->enterpriseOid;
    delete pdu;
}

void DisplaySnmpPduInfo(const SnmpPdu* pdu) {
    TKLOG(3, "\t Inside DisplaySnmpPduInfo() \n");
    if (!TkLogsAtLeast(2)) return;
    TKLOG(2, "Message : \n\n");
    TKLOG(2, "Request Id\t\t\t= %ld\n", pdu->requestId);
    TKLOG(2, "Error Index\t\t\t= %ld\n", pdu->errorIndex);
    TKLOG(2, "Error Status\t\t\t= %ld\n", pdu->errorStatus);
    // Nothing follows for a received response: it has no other list.
    const bool usesOther =
        pdu->command == command::response || pdu->command == command::trapV1 || pdu->command == command::trapV2;
    const TkVector* list = usesOther ? pdu->otherVarBinds : &pdu->varBinds;
    for (const TkVectorNode* node = list ? list->head : nullptr; node; node = node->next)
        PrintVarBind(static_cast<const VarBind*>(node->data));
}

}  // namespace kv::snmp

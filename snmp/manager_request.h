// The datagrams that a manager request sends: OIDs of its texts, variables, PDUs.
#pragma once

#include <cstdint>

#include "snmp/manager_operations.h"
#include "snmp/oid.h"
#include "snmp/pdu.h"
#include "snmp/var_bind.h"

namespace kv::snmp {

// Of every request.
inline constexpr std::int32_t requestId = 1;
inline constexpr std::int32_t requestErrorStatus = 0;
inline constexpr std::int32_t requestErrorIndex = 1;

/// The variables of a request, until its PDU takes them over.
struct RequestVarBinds {
    RequestVarBinds() = default;
    ~RequestVarBinds() {
        if (list.count > 0) FreeVarBindList(&list);
    }
    RequestVarBinds(const RequestVarBinds&) = delete;
    RequestVarBinds& operator=(const RequestVarBinds&) = delete;

    TkVector list{};
};

/// The sub-identifiers of the OID at an index; -1, with a word printed and a line, when it is malformed. There are also
/// lines for an OID that will be asked for in another form than it was written.
std::int32_t ParseRequestedOid(const ManagerRequest& request, std::int32_t index, SubIds& oid);

/// Appends a variable without a value; false when memory ran out.
bool AddRequestVarBind(RequestVarBinds& varBinds, const std::uint32_t* oid, std::int32_t oidLength);

/// A request that takes over the variables. Null when memory ran out or the community is too long.
SnmpPduPtr MakeRequestPdu(const ManagerRequest& request, std::uint8_t command, RequestVarBinds& varBinds);

/// A list for each OID of a request, all null.
ResultVectors MakeResultVectors(const ManagerRequest& request);

/// Whether an exchange brought an answer that cannot be read. The error status of one that can may be the same number.
bool IsUnreadable(const SnmpPdu& answer, std::uint8_t status);

}  // namespace kv::snmp

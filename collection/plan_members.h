// The members of a plan that the agent reads, and what is odd about the names that a plan uses instead.
//
// A plan may hold more than the agent reads: members that are for others, or for whoever writes it. So an unknown name
// is odd only when it resembles one that is missing, or when the record lacks what it needs.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "foundation/hash_table.h"

namespace kv {

inline constexpr std::u16string_view workflowMembers[] = {u"wfname", u"interval", u"recordSetName", u"order"};
inline constexpr std::u16string_view wmiRecordMembers[] = {u"wmiQuery", u"Name", u"nameSpace"};
inline constexpr std::u16string_view scriptRecordMembers[] = {u"script", u"Name", u"params", u"response_needed"};
inline constexpr std::u16string_view snmpRecordMembers[] = {
    u"PROTOCOL", u"DEVICE_NAME", u"SNMP_PORT",  u"SNMP_VERSION", u"COMMUNITY", u"OID", u"IS_MULTIPLE_POLLED_DATA",
    u"POLL_ID",  u"AGENT_KEY",   u"POLICY_NAME"};

/// A plan's list of the agent itself, and what those of slaves begin with.
inline constexpr std::u16string_view ownWorkflowsKey = u"WorkFlows";
inline constexpr std::u16string_view slaveWorkflowsKey = u"WorkFlows_";

/// Whether the agent reads a member of that name somewhere in a plan.
bool IsPlanMember(std::u16string_view name);

/// What is odd about the names of a record's or a workflow's members, as sentences without a full stop: "nobody reads
/// wmiquery; did you mean wmiQuery?". Empty when nothing is. Throws std::bad_alloc.
std::vector<std::u16string> OddMembersOfRecord(const HashTable* record);
std::vector<std::u16string> OddMembersOfWorkflow(const HashTable* workflow);

}  // namespace kv

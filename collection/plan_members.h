// The members of a plan that the agent reads, and what is odd about the names that a plan uses instead.
//
// A plan may hold more than the agent reads: members that are for others, or for whoever writes it. So an unknown name
// is odd only when it resembles one that is missing, or when the record lacks what it needs.
#pragma once

#include <span>
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

/// What a plan's record has no use without, and what it may have: of the kind that its members say.
struct RecordKind {
    std::u16string_view key;  // a record of this kind has it; it is of the first kind whose key it has
    std::span<const std::u16string_view> members;
    std::span<const std::u16string_view> needed;
};

/// The kinds of records, in the order in which they are told. What each collects is in collection/collect.cpp.
std::span<const RecordKind> RecordKinds();

/// What is odd about the names of a record's or a workflow's members, as sentences without a full stop: "nobody reads
/// wmiquery; did you mean wmiQuery?". Empty when nothing is. Throws std::bad_alloc.
std::vector<std::u16string> OddMembersOfRecord(const HashTable* record);
std::vector<std::u16string> OddMembersOfWorkflow(const HashTable* workflow);

}  // namespace kv

// The members of records: those that a plan's record or a request has, read as text, and those that a record has when
// it goes out.
//
// A record that goes out lists its members in one table beside its source, except that of a script, which is what the
// script prints. PutMembers writes them and HasMember knows them: rows may stand under a name that somebody else has
// chosen, and one more member of that name would replace them. So a new member is a row of that table, and nothing
// else. Members stand in the text in the reverse of their order.
#pragma once

#include <span>
#include <string>
#include <string_view>

#include "foundation/hash_table.h"
#include "foundation/text.h"

namespace kv {

/// A member as text: a text as it is, an integer in decimal, a truth value as "true" or "false". Null when it is absent
/// or anything else.
OptionalText MemberText(const HashTable* asked, std::u16string_view key);

/// MemberText of a plan's record, with a log line for a member that is there and has no such text.
OptionalText ReadMember(const HashTable* record, std::u16string_view key);

/// What the members of one record are made of, beside the agent's state.
struct RecordSource {
    const HashTable* asked;     // the plan's record or the request, the caller's; null when no member comes from it
    OptionalText message = {};  // how the query or the action ended; null when nothing was run
};

/// What a record shows of a member that has no text.
enum class WhenAbsent { leftOut, emptyText, nullValue };

/// A member of a record that goes out.
struct RecordMember {
    std::u16string_view key;
    OptionalText (*text)(const RecordSource& source) = nullptr;
    std::u16string_view copyOf = {};  // without text: the key in what was asked
    WhenAbsent whenAbsent = WhenAbsent::leftOut;
};

/// The members that more than one kind of record has.
namespace record_member {

OptionalText MessageText(const RecordSource& source);
OptionalText CollectTimeText(const RecordSource& source);
OptionalText AgentKeyText(const RecordSource& source);
OptionalText CustomerIdText(const RecordSource& source);
OptionalText RequestIdText(const RecordSource& source);

inline constexpr RecordMember errorMessage{
    .key = u"ERRORMSG", .text = MessageText, .whenAbsent = WhenAbsent::nullValue};
inline constexpr RecordMember collectTime{.key = u"DATACOLLECTTIME", .text = CollectTimeText};  // when it is put
inline constexpr RecordMember agentKey{.key = u"AGENTKEY", .text = AgentKeyText};
inline constexpr RecordMember customerId{.key = u"MSPCUSTOMERID", .text = CustomerIdText};
inline constexpr RecordMember requestId{.key = u"AGENT_REQUEST_ID", .text = RequestIdText};

}  // namespace record_member

/// Puts the members into a record, in their order. Without memory to put one it is left out, with a log line.
/// Throws std::bad_alloc when memory runs out for its text.
void PutMembers(HashTable* record, std::span<const RecordMember> members, const RecordSource& source);

/// Whether one of the members has this name.
bool HasMember(std::span<const RecordMember> members, std::u16string_view name);

/// Puts rows under a name into a record, which owns them then. Without memory they are left out, with a log line.
void PutRows(HashTable* record, std::u16string_view name, VectorPtr rows);

}  // namespace kv

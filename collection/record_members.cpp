#include "collection/record_members.h"

#include <algorithm>
#include <utility>

#include "foundation/agent_state.h"
#include "foundation/log.h"
#include "foundation/time_utils.h"
#include "http/request_servlet.h"

namespace kv {

namespace {

void PutMember(HashTable* record, const RecordMember& member, const RecordSource& source) {
    const OptionalText text = member.text ? member.text(source) : MemberText(source.asked, member.copyOf);
    int isPut = 1;
    if (text || member.whenAbsent == WhenAbsent::emptyText) {
        isPut = PutHashText(record, member.key, text.value_or(u""));
    } else if (member.whenAbsent == WhenAbsent::nullValue) {
        isPut = PutHashValue(record, member.key, 0, ValueType::text);
    }
    if (isPut == 0) Log1("\t PutMembers :: No memory for %s, it is left out \n", member.key);
}

}  // namespace

OptionalText MemberText(const HashTable* asked, std::u16string_view key) {
    const HashEntry* entry = GetHashEntry(asked, key);
    if (!entry) return std::nullopt;
    if (entry->type == ValueType::integer) return DecimalText(static_cast<std::int32_t>(entry->value));
    if (entry->type == ValueType::boolean) return (entry->value & 0xFF) != 0 ? u"true" : u"false";
    const char16_t* text = GetHashText(asked, key);
    return text ? OptionalText(text) : std::nullopt;
}

OptionalText ReadMember(const HashTable* record, std::u16string_view key) {
    OptionalText text = MemberText(record, key);
    if (!text && ContainsHashKey(record, key))
        Log1(
            "\t CollectAndSaveData :: %s is not a text, a whole number or a truth value and is not used in the record "
            "%s \n",
            key, MemberText(record, u"Name"));
    return text;
}

namespace record_member {

OptionalText MessageText(const RecordSource& source) { return source.message; }

OptionalText CollectTimeText(const RecordSource&) { return DecimalText(GetNowSeconds() + agentState.gv_timeDiff); }

OptionalText AgentKeyText(const RecordSource&) { return std::u16string(agentState.gv_agentKey.view()); }

OptionalText CustomerIdText(const RecordSource&) { return agentState.gv_custID.value_or(u""); }

OptionalText RequestIdText(const RecordSource& source) { return RequestText(source.asked, u"AGENT_REQUEST_ID"); }

}  // namespace record_member

void PutMembers(HashTable* record, std::span<const RecordMember> members, const RecordSource& source) {
    for (const RecordMember& member : members) PutMember(record, member, source);
}

bool HasMember(std::span<const RecordMember> members, std::u16string_view name) {
    return std::any_of(members.begin(), members.end(), [&](const RecordMember& member) { return member.key == name; });
}

void PutRows(HashTable* record, std::u16string_view name, VectorPtr rows) {
    if (!PutHashVector(record, name, std::move(rows)))
        Log1("\t PutRows :: No memory for the rows of %s, they are left out \n", name);
}

}  // namespace kv

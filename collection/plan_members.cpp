#include "collection/plan_members.h"

#include <algorithm>
#include <span>

#include "platform/near_name.h"

namespace kv {

namespace {

struct RecordKind {
    std::u16string_view key;  // a record is of the first kind whose key it has
    std::span<const std::u16string_view> members;
    std::span<const std::u16string_view> needed;  // beside the key
};

constexpr std::u16string_view neededOfWmi[] = {u"Name"};
constexpr std::u16string_view neededOfSnmp[] = {u"DEVICE_NAME", u"OID"};
constexpr RecordKind kinds[] = {
    {u"wmiQuery", wmiRecordMembers, neededOfWmi},
    {u"script", scriptRecordMembers, {}},
    {u"PROTOCOL", snmpRecordMembers, neededOfSnmp},
};

bool IsAmong(std::span<const std::u16string_view> names, std::u16string_view name) {
    return std::find(names.begin(), names.end(), name) != names.end();
}

std::vector<std::u16string> UnknownMembers(const HashTable* table, std::span<const std::u16string_view> known) {
    std::vector<std::u16string> unknown;
    const auto keys = GetHashKeys(table);
    for (std::size_t at = 0; keys[at]; ++at) {
        if (!IsAmong(known, keys[at])) unknown.emplace_back(keys[at]);
    }
    return unknown;
}

std::u16string Listed(const std::vector<std::u16string>& names) {
    std::u16string list;
    for (const std::u16string& name : names) list.append(list.empty() ? u"" : u", ").append(name);
    return list;
}

/// Finds the unknown members that resemble a known one which is not there, and takes them out of the list.
std::vector<std::u16string> TakeSlips(std::vector<std::u16string>& unknown, const HashTable* table,
                                      std::span<const std::u16string_view> known) {
    std::vector<std::u16string> slips;
    std::erase_if(unknown, [&](const std::u16string& name) {
        const std::u16string_view meant = platform::NearestName(name, known);
        if (meant.empty() || ContainsHashKey(table, meant)) return false;
        slips.push_back(u"nobody reads " + name + u"; did you mean " + std::u16string(meant) + u"?");
        return true;
    });
    return slips;
}

/// Says what is missing, with the members by which it may have been meant.
void AddLack(std::vector<std::u16string>& odd, std::u16string lacking, const std::vector<std::u16string>& unknown) {
    if (!unknown.empty()) lacking += u", and nobody reads " + Listed(unknown);
    odd.push_back(std::move(lacking));
}

std::vector<std::u16string> OddMembersOfNoKind(const HashTable* record) {
    std::vector<std::u16string_view> known;
    for (const RecordKind& kind : kinds) known.insert(known.end(), kind.members.begin(), kind.members.end());
    std::vector<std::u16string> unknown = UnknownMembers(record, known);
    std::vector<std::u16string> odd = TakeSlips(unknown, record, known);
    AddLack(odd, u"wmiQuery, script and PROTOCOL are all missing, so that nothing is collected", unknown);
    return odd;
}

}  // namespace

bool IsPlanMember(std::u16string_view name) {
    return name == ownWorkflowsKey || name.starts_with(slaveWorkflowsKey) || IsAmong(workflowMembers, name) ||
           std::any_of(std::begin(kinds), std::end(kinds),
                       [name](const RecordKind& kind) { return IsAmong(kind.members, name); });
}

std::vector<std::u16string> OddMembersOfRecord(const HashTable* record) {
    const auto* const kind = std::find_if(std::begin(kinds), std::end(kinds),
                                          [record](const RecordKind& one) { return ContainsHashKey(record, one.key); });
    if (kind == std::end(kinds)) return OddMembersOfNoKind(record);
    std::vector<std::u16string> unknown = UnknownMembers(record, kind->members);
    std::vector<std::u16string> odd = TakeSlips(unknown, record, kind->members);
    for (const std::u16string_view needed : kind->needed) {
        if (!ContainsHashKey(record, needed)) AddLack(odd, std::u16string(needed) + u" is missing", unknown);
    }
    return odd;
}

std::vector<std::u16string> OddMembersOfWorkflow(const HashTable* workflow) {
    std::vector<std::u16string> unknown = UnknownMembers(workflow, workflowMembers);
    return TakeSlips(unknown, workflow, workflowMembers);
}

}  // namespace kv

// What kvagentctl check says of a record of a plan, and of one that asks by WMI.
#include <fmt/format.h>
#include <optional>
#include <span>
#include <string_view>

#include "collection/plan_members.h"
#include "collection/wmi.h"
#include "collection/wmi_query.h"
#include "foundation/text.h"
#include "platform/utf.h"
#include "tools/kvagentctl/check/check_subject.h"
#include "tools/kvagentctl/query/class_guide.h"
#include "tools/kvagentctl/query/query_hints.h"

namespace kv::control {

namespace {

using platform::Utf8FromWide;

/// What is wrong with the query of a record, or looks so.
void CheckQuery(const Subject& subject, const std::u16string& query) {
    const OptionalText nameSpace = subject.text(u"nameSpace");
    const auto [known, isNew] = subject.context.queryFaults.try_emplace(std::pair(nameSpace, query));
    std::optional<std::u16string>& fault = known->second;
    if (isNew) fault = WMIQueryFault(nameSpace, query);
    const std::vector<std::string> hints = QueryHints(query);
    if (fault && !fault->empty()) {
        const std::string elsewhere = OtherComputerHint(Utf8FromWide(nameSpace.value_or(u"")));
        return subject.Error("wmiQuery is refused: " + Utf8FromWide(*fault),
                             elsewhere.empty() ? fmt::format("{}", fmt::join(hints, "; ")) : elsewhere);
    }
    if (!fault) subject.context.isQueryUnjudged = true;
    for (const std::string& hint : hints) subject.Warn("wmiQuery: " + hint);
}

struct Kind {
    std::u16string_view key;
    std::span<const std::u16string_view> members;
    void (*check)(const Subject& subject);
};
/// In the order in which the agent asks.
constexpr Kind kinds[] = {{u"wmiQuery", wmiRecordMembers, CheckWmi},
                          {u"script", scriptRecordMembers, CheckScript},
                          {u"PROTOCOL", snmpRecordMembers, CheckSnmp}};

}  // namespace

std::string Subject::Lack(std::u16string_view key) const {
    return Utf8FromWide(key) + (has(key) ? " is not a text" : " is missing");
}

OptionalText NeededText(const Subject& subject, std::u16string_view key) {
    OptionalText text = subject.text(key);
    if (!text) subject.Error(subject.Lack(key) + ": the record is skipped");
    return text;
}

/// Two records of one name reach the server as one.
void CheckName(const Subject& subject, const std::u16string& name) {
    const auto [place, isNew] = subject.context.places.emplace(name, subject.where);
    if (!isNew)
        subject.Warn(fmt::format("has the Name of {}, and the server cannot tell their rows apart", place->second));
}

void CheckWmi(const Subject& subject) {
    CheckMemberNames(subject.findings, subject.where, subject.record, wmiRecordMembers, subject.ignored);
    const OptionalText query = NeededText(subject, u"wmiQuery");
    const OptionalText name = NeededText(subject, u"Name");
    if (name && IsWMIRecordMember(*name))
        subject.Error(fmt::format("Name {} is another member of the record: it is skipped", Utf8FromWide(*name)),
                      "give it another Name");
    else if (name)
        CheckName(subject, *name);
    if (subject.has(u"nameSpace") && !subject.text(u"nameSpace"))
        subject.Warn("nameSpace is not a text: ROOT\\CIMV2 is asked");
    if (query) CheckQuery(subject, *query);
}

void CheckRecord(Findings& findings, PlanContext& context, const std::string& where, const HashTable* record) {
    Subject subject{findings, context, where, record};
    if (const OptionalText name = subject.text(u"Name")) subject.where += fmt::format(" \"{}\"", Utf8FromWide(*name));
    const Kind* found = nullptr;
    for (const Kind& kind : kinds) {
        if (!subject.has(kind.key)) continue;
        if (found) {
            subject.Warn(
                fmt::format("{} is ignored, because {} is there", Utf8FromWide(kind.key), Utf8FromWide(found->key)),
                "make two records of it");
            subject.ignored.insert(subject.ignored.end(), kind.members.begin(), kind.members.end());
        } else {
            found = &kind;
        }
    }
    if (found) return found->check(subject);
    for (const std::u16string& odd : OddMembersOfRecord(record)) subject.Error(Utf8FromWide(odd));
}

}  // namespace kv::control

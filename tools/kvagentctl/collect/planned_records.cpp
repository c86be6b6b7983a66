#include "tools/kvagentctl/collect/planned_records.h"

#include <algorithm>
#include <fmt/format.h>
#include <fmt/ranges.h>
#include <initializer_list>
#include <memory>
#include <optional>

#include "collection/collect.h"
#include "collection/record_members.h"
#include "commandline/run.h"
#include "foundation/agent_state.h"
#include "foundation/file_utils.h"
#include "foundation/registry_failure.h"
#include "foundation/registry_store.h"
#include "platform/near_name.h"
#include "platform/utf.h"
#include "queryconf/conf_paths.h"
#include "tools/kvagentctl/agent_process.h"
#include "tools/kvagentctl/plan_lists.h"
#include "tools/kvagentctl/plan_neighbour.h"
#include "tools/kvagentctl/readable_file.h"
#include "tools/kvagentctl/status/status_text.h"

namespace kv::control {

namespace {

using commandline::Given;
using commandline::Has;
using commandline::InLine;
using commandline::NotFoundError;
using platform::Utf8FromWide;
using platform::WideFromUtf8;

/// The texts of members, those that are there.
std::vector<std::string> TextsOf(const HashTable* record, std::initializer_list<std::u16string_view> keys) {
    std::vector<std::string> texts;
    for (const std::u16string_view key : keys) {
        const OptionalText text = MemberText(record, key);
        if (text && !text->empty()) texts.push_back(Utf8FromWide(*text));
    }
    return texts;
}

std::vector<std::string> NamesOf(const HashTable* record, std::string_view kind) {
    if (kind == "WMI") return TextsOf(record, {u"Name"});
    if (kind == "script") return TextsOf(record, {u"Name", u"script"});
    if (kind.empty()) return TextsOf(record, {u"Name", u"POLL_ID", u"DEVICE_NAME", u"AGENT_KEY", u"POLICY_NAME"});
    return TextsOf(record, {u"POLL_ID", u"DEVICE_NAME", u"AGENT_KEY", u"POLICY_NAME"});
}

void TakeRecords(const HashTable* workflow, std::vector<PlannedRecord>& records) {
    const Vector* list = GetHashVector(workflow, u"recordSetName");
    if (!list) return;
    const std::string name = Utf8FromWide(MemberText(workflow, u"wfname").value_or(u""));
    for (const VectorElement* element = list->head; element; element = element->next) {
        if (element->type != ValueType::table) continue;
        const auto* record = reinterpret_cast<const HashTable*>(element->value);
        const std::string_view kind = KindOfRecord(record);
        records.push_back({record, kind, name, NamesOf(record, kind)});
    }
}

/// What is collected here and may surprise who wrote the plan.
void TellOddLists(const std::vector<PlanList>& lists, const std::string& name) {
    if (const std::string others = NamesOfOthers(lists); !others.empty())
        fmt::print(stderr, "{}: collected, too: {}; the agent runs each list at the top, whatever its name\n", name,
                   InLine(others));
    std::size_t leftOut = 0;
    for (const PlanList& list : lists) leftOut += list.objects - list.runnable;
    if (leftOut > 0)
        fmt::print(stderr, "{}: the agent leaves out {}, whatever is collected here; kvagentctl check says why\n", name,
                   Counted(leftOut, "workflow"));
}

/// slave: whose plan it is; absent when only its content can tell.
HashTablePtr ReadPlan(std::u16string_view path, const std::string& name, const OptionalText& slave) {
    PlanFile plan = ReadPlanFile(path);
    if (!plan.document)
        throw std::runtime_error(fmt::format("{}: {}; see kvagentctl check {}", name, plan.failure, name));
    if (!plan.notice.empty()) fmt::print(stderr, "{}: {}\n", name, InLine(plan.notice));
    for (const RepeatedKey& member : plan.repeated)
        fmt::print(stderr, "{}, line {}: {} is not used: it stands again in line {}\n", name, member.line,
                   InLine(Utf8FromWide(member.key)), member.lastLine);
    TellOddLists(ListsOf(plan.document.get(), slave ? *slave : SlaveOf(plan.document.get())), name);
    return std::move(plan.document);
}

bool IsNamed(const PlannedRecord& record, const std::string& name) {
    return std::any_of(record.names.begin(), record.names.end(), [&](const std::string& known) {
        return CompareIgnoreCase(WideFromUtf8(known), WideFromUtf8(name)) == 0;
    });
}

}  // namespace

platform::Error ReadSettings() {
    OptionalText install;
    const platform::Error failure = GetKVAgentInstallDir(install);
    if (install) agentState.gv_ocAgentBinPath = *install + u"monitoring\\bin\\";
    OptionalText key;
    agentState.gv_agentKey.Publish(GetOCAgentKey(key) == platform::error::success && key ? *key : u"HUBCENTER");
    static_cast<void>(GetCustomerName(agentState.gv_custID));
    return failure == platform::error::success && !install ? platform::error::fileNotFound : failure;
}

std::string SettingsFailureText(platform::Error failure) {
    return IsGone(failure) && EmptyRegistryText().empty() ? "the setting KVAgentInstallDir is missing"
                                                          : RegistryFailureText(failure);
}

std::vector<HashTablePtr> ReadPlans(const Given& given, platform::Error failure) {
    const std::string named = Has(given, "PLAN") ? commandline::NeededValue(given, "PLAN") : "";
    std::vector<HashTablePtr> plans;
    if (!named.empty()) {
        if (!MayExist(WideFromUtf8(named))) throw NotFoundError(fmt::format("{} does not exist", named));
        RefuseDirectory(named);
        const NamedPlan file(named);
        plans.push_back(ReadPlan(file.path(), named, std::nullopt));
        return plans;
    }
    const std::string hint = SettingsFailureText(failure) + "; name a plan: kvagentctl collect PLAN";
    if (IsGone(failure)) throw NotFoundError(hint);
    if (failure != platform::error::success) throw std::runtime_error(hint);
    const std::u16string bin = *agentState.gv_ocAgentBinPath;
    const std::u16string own = ConcatStrings(bin, conf_path::ownPlan);
    if (!MayExist(own)) {
        const std::string neighbour = PlanNeighbourHint(own);
        throw NotFoundError(fmt::format("the agent has no plan: {} does not exist; {}", NativeName(own),
                                        neighbour.empty() ? "name one: kvagentctl collect PLAN" : neighbour));
    }
    plans.push_back(ReadPlan(own, NativeName(own), u""));
    if (!Has(given, "--slaves")) return plans;
    for (const SlavePlan& plan : PlansOfSlaves(bin))
        plans.push_back(ReadPlan(plan.path, NativeName(plan.path), plan.slave));
    return plans;
}

std::vector<PlannedRecord> RecordsOf(const HashTable* document) {
    std::vector<PlannedRecord> records;
    const std::unique_ptr<const char16_t*[]> keys = GetHashKeys(document);
    for (std::size_t i = 0; keys[i]; ++i) {
        const Vector* workflows = GetHashVector(document, keys[i]);
        for (const VectorElement* element = workflows ? workflows->head : nullptr; element; element = element->next) {
            if (element->type == ValueType::table)
                TakeRecords(reinterpret_cast<const HashTable*>(element->value), records);
        }
    }
    return records;
}

void KeepNamed(std::vector<PlannedRecord>& records, const std::string& name) {
    std::vector<std::string> known;
    for (const PlannedRecord& record : records) {
        for (const std::string& one : record.names) {
            if (std::find(known.begin(), known.end(), one) == known.end()) known.push_back(one);
        }
    }
    std::erase_if(records, [&](const PlannedRecord& record) { return !IsNamed(record, name); });
    if (!records.empty()) return;
    constexpr std::size_t mostNames = 30;  // of a message
    const std::size_t shown = std::min(known.size(), mostNames);
    const std::string more = shown < known.size() ? fmt::format(" and {} more", known.size() - shown) : "";
    known.resize(shown);
    throw NotFoundError(
        fmt::format("no record of the plan is called {}; there are: {}{}", name, fmt::join(known, ", "), more));
}

}  // namespace kv::control

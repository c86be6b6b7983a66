#include "tools/kvagentctl/plan_lists.h"

#include <fmt/format.h>
#include <memory>

#include "collection/plan_members.h"
#include "platform/utf.h"
#include "queryconf/query_config.h"

namespace kv::control {

std::u16string SlaveOf(const HashTable* document) {
    if (ContainsHashKey(document, ownWorkflowsKey)) return u"";
    const std::unique_ptr<const char16_t*[]> keys = GetHashKeys(document);
    for (std::size_t i = 0; keys[i]; ++i) {
        const std::u16string_view key = keys[i];
        if (key.starts_with(slaveWorkflowsKey)) return std::u16string(key.substr(slaveWorkflowsKey.size()));
    }
    return u"";
}

std::vector<PlanList> ListsOf(const HashTable* document, std::u16string_view slave) {
    std::vector<PlanList> lists;
    const std::unique_ptr<const char16_t*[]> keys = GetHashKeys(document);
    for (std::size_t i = 0; keys[i]; ++i) {
        const Vector* const workflows = GetHashVector(document, keys[i]);
        if (!workflows) continue;
        PlanList list{platform::Utf8FromWide(keys[i]), workflows, IsPlanKey(slave, keys[i])};
        for (const VectorElement* element = workflows->head; element; element = element->next) {
            if (element->type == ValueType::table) ++list.objects;
            if (!WorkflowFault(element)) ++list.runnable;
        }
        lists.push_back(std::move(list));
    }
    return lists;
}

std::string NamesOfOthers(const std::vector<PlanList>& lists) {
    std::string names;
    for (const PlanList& list : lists) {
        if (!list.isExpected && list.runnable > 0) names += (names.empty() ? "" : ", ") + list.name;
    }
    return names;
}

std::string OutcomeOfUnusable(const std::vector<PlanList>& lists) {
    const std::string others = NamesOfOthers(lists);
    return "the agent would refuse it from the server; at a start it " +
           (others.empty() ? "collects nothing by it" : "runs the other lists all the same: " + others);
}

}  // namespace kv::control

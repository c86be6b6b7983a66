#include "tools/kvagentctl/plan_neighbour.h"

#include <fmt/format.h>

#include "foundation/file_utils.h"
#include "foundation/open_file.h"
#include "foundation/text.h"
#include "platform/near_name.h"
#include "platform/utf.h"
#include "queryconf/conf_paths.h"

namespace kv::control {

namespace {

/// queryconf.json, QueryConf.txt, queryconf.txt.txt, plan.json and other names near the right one. The agent's own
/// files beside the plan, which it is writing, are not meant.
bool LooksLikePlan(std::u16string_view name) {
    if (name.ends_with(u".restored") || name.ends_with(u".tmp")) return false;
    const std::u16string_view stem = name.substr(0, name.find(u'.'));
    for (const std::u16string_view known : {u"queryconf", u"plan"}) {
        if (CompareIgnoreCase(stem, known) == 0) return true;
    }
    return !platform::NearestName(name, {&conf_path::planName, 1}).empty();
}

}  // namespace

std::string PlanNeighbourHint(std::u16string_view plan) {
    const std::u16string folder(plan.substr(0, plan.find_last_of(u"\\/") + 1));
    for (FileSearch search(folder + u"*"); search.hasFile(); search.Next()) {
        const std::u16string& name = search.file.fileName;
        if (LooksLikePlan(name) && !IsDirectory(folder + name))
            return fmt::format("{} stands there, and the agent reads only {}: rename it", platform::Utf8FromWide(name),
                               platform::Utf8FromWide(conf_path::planName));
    }
    return "";
}

}  // namespace kv::control

#include "queryconf/query_config.h"

#include <algorithm>
#include <fmt/format.h>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "collection/plan_members.h"
#include "collection/record_members.h"
#include "foundation/agent_health.h"
#include "foundation/agent_state.h"
#include "foundation/file_utils.h"
#include "foundation/guarded.h"
#include "foundation/hash_table.h"
#include "foundation/line_bound.h"
#include "foundation/log.h"
#include "foundation/open_file.h"
#include "foundation/text.h"
#include "jsontext/hash_json.h"
#include "platform/clock.h"
#include "platform/files.h"
#include "platform/utf.h"
#include "queryconf/conf_paths.h"
#include "queryconf/schedule.h"

namespace kv {

namespace {

using platform::Error;
using platform::Files;
namespace error = platform::error;

/// A plan that someone holds for a moment is waited for this long: at a start there is no other one to go on with.
constexpr int openAttempts = 8;
constexpr std::uint32_t openPause = 250;  // milliseconds

std::u16string PlanKey(std::u16string_view agent) {
    return agent.empty() ? std::u16string(ownWorkflowsKey) : ConcatStrings(slaveWorkflowsKey, agent);
}

/// Finds the list of an agent; null with a log line when it is missing.
Vector* FindWorkflows(const char* caller, const HashTable* table, std::u16string_view agent,
                      std::u16string_view fileName) {
    const std::unique_ptr<const char16_t*[]> keys = GetHashKeys(table);
    for (std::size_t i = 0; keys[i]; ++i) {
        Vector* workflows = IsPlanKey(agent, keys[i]) ? GetHashVector(table, keys[i]) : nullptr;
        if (workflows) return workflows;
    }
    Log1("\t %s :: %s has no array %s \n", caller, fileName, PlanKey(agent));
    return nullptr;
}

std::u16string UnderBinPath(std::u16string_view path) {
    return ConcatStrings(agentState.gv_ocAgentBinPath.value_or(u""), path);
}

/// Whether a plan is read where it is, and not restored from its backup. What is there and cannot be opened is waited
/// for.
bool IsThere(std::u16string_view path) {
    for (int attempt = 1; !fileExists(path); ++attempt) {
        if (!MayExist(path)) return false;
        if (attempt == openAttempts || IsDirectory(path)) break;
        platform::Clock().Sleep(openPause);
    }
    return true;
}

/// Puts the backup in the place of a missing file. The copy gets its name only once it is complete, so that a full disk
/// or a kill in between cannot leave half a plan where the next start would take it for the plan.
void RestoreFromBackup(std::u16string_view agent, std::u16string_view fileName) {
    Log3("\t Inside RestoreFromBackup() \n");
    std::u16string backup = UnderBinPath(conf_path::backupDirectory);
    if (!agent.empty()) backup += std::u16string(agent) + u"\\";
    backup += conf_path::planName;
    const std::u16string restored = ConcatStrings(fileName, u".restored");
    Error result = Files().CopyFileW(backup, restored);
    if (result == error::success) result = Files().MoveFileExW(restored, fileName, platform::MoveTarget::isReplaced);
    if (result == error::success) return;
    Log1("\t LoadQueryConfig :: %s cannot be restored from %s. Error is [%u] \n", fileName, backup, result);
    Files().DeleteFileW(restored);
}

/// An empty list is a plan to collect nothing; a list in which nothing can run is a mistake.
bool HasRunnableWorkflow(const Vector* workflows, std::u16string_view agent, std::u16string_view fileName) {
    const char* fault = nullptr;
    for (const VectorElement* element = workflows->head; element; element = element->next) {
        if (!(fault = WorkflowFault(element))) return true;
    }
    if (!fault) return true;
    Log1("\t JudgeQueryConfig :: %s :: no workflow of %s can run: the last %s \n", fileName, PlanKey(agent), fault);
    return false;
}

const char16_t* WorkflowName(const VectorElement* element) {
    if (element->type != ValueType::table) return nullptr;
    return GetHashText(reinterpret_cast<const HashTable*>(element->value), u"wfname");
}

/// Lines for members that are probably misspelt. The plan is taken as it is.
void LogOddMembers(const VectorElement* element, std::int32_t index, std::u16string_view fileName) {
    if (element->type != ValueType::table) return;
    const auto* workflow = reinterpret_cast<const HashTable*>(element->value);
    for (const std::u16string& odd : OddMembersOfWorkflow(workflow))
        Log1("\t LoadQueryConfig :: %s :: workflow [%d], wfname %s: %s \n", fileName, index, WorkflowName(element),
             odd);
    const Vector* records = GetHashVector(workflow, u"recordSetName");
    std::int32_t at = 0;
    for (const VectorElement* each = records ? records->head : nullptr; each; each = each->next, ++at) {
        if (each->type != ValueType::table) continue;
        const auto* record = reinterpret_cast<const HashTable*>(each->value);
        for (const std::u16string& odd : OddMembersOfRecord(record))
            Log1("\t LoadQueryConfig :: %s :: workflow [%d], wfname %s, record [%d], Name %s: %s \n", fileName, index,
                 WorkflowName(element), at, MemberText(record, u"Name"), odd);
    }
}

/// Lines for members that stand twice in one object, of which the agent takes the last.
void LogRepeatedMembers(const JsonReadResult& read, std::u16string_view fileName) {
    for (const RepeatedKey& member : read.repeated)
        Log1("\t LoadQueryConfig :: %s :: %s in line %d is not used: it stands again in line %d \n", fileName,
             member.key, member.line, member.lastLine);
}

/// Moves the workflows that can run into a list of their own; the others stay and are logged. Null when memory ran out.
VectorPtr TakeWorkflows(Vector* workflows, const char16_t* key, std::u16string_view fileName) {
    VectorPtr taken = MakeVector();
    std::int32_t index = 0;
    for (VectorElement* element = workflows->head; element && taken; element = element->next, ++index) {
        LogOddMembers(element, index, fileName);
        if (const char* fault = WorkflowFault(element)) {
            Log1("\t LoadQueryConfig :: %s :: workflow [%d] of %s, wfname %s, %s: it is left out \n", fileName, index,
                 key, WorkflowName(element), fault);
            continue;
        }
        element->type = ValueType::none;
        if (!AppendTable(taken.get(), HashTablePtr(reinterpret_cast<HashTable*>(element->value)))) return nullptr;
    }
    return taken;
}

/// Moves the lists of workflows out of an agent's document into a table of their own. Null when memory ran out.
HashTablePtr TakePlan(const HashTable* document, std::u16string_view agent, std::u16string_view fileName) {
    HashTablePtr plan = MakeHashTable();
    const std::unique_ptr<const char16_t*[]> keys = GetHashKeys(document);
    for (std::size_t i = 0; keys[i] && plan; ++i) {
        Vector* workflows = GetHashVector(document, keys[i]);
        if (!workflows) {
            Log1("\t LoadQueryConfig :: %s :: the value of %s is not an array: it is left out \n", fileName, keys[i]);
            continue;
        }
        const std::u16string key = IsPlanKey(agent, keys[i]) ? PlanKey(agent) : keys[i];
        if (ContainsHashKey(plan.get(), key)) {
            Log1("\t LoadQueryConfig :: %s :: %s is %s given again: it is left out \n", fileName, keys[i], key);
            continue;
        }
        VectorPtr taken = TakeWorkflows(workflows, keys[i], fileName);
        if (!taken || !PutHashVector(plan.get(), key, std::move(taken))) return nullptr;
    }
    return plan;
}

/// Lists that are no longer in the merged table, but may still be in use.
std::vector<VectorPtr> replacedPlans;

/// Makes room for a new list. The old one is not freed yet: gv_sortVec and timers refer to its entries until the
/// schedule is built again.
void RemoveOldKey(const std::u16string& key) {
    replacedPlans.emplace_back(GetHashVector(agentState.gv_queryConfHash, key));
    RemoveHashKey(agentState.gv_queryConfHash, key);
    Log2("\t Key %s deleted from query conf \n", key);
    Log2("\t Query conf key count after deleting : %d \n", CountHashKeys(agentState.gv_queryConfHash));
}

/// Frees those lists of a plan that the merged table did not take.
void FreeListsLeftOver(const HashTable* plan, std::u16string_view fileName) {
    const std::unique_ptr<const char16_t*[]> keys = GetHashKeys(plan);
    for (std::size_t i = 0; keys[i]; ++i) {
        Vector* workflows = GetHashVector(plan, keys[i]);
        if (GetHashVector(agentState.gv_queryConfHash, keys[i]) == workflows) continue;
        Log1("\t LoadQueryConfig :: %s :: %s belongs to another file and is left out \n", fileName, keys[i]);
        FreeAllVector(workflows);
    }
}

struct FreeHashTableDeleter {
    void operator()(HashTable* table) const { FreeHashTable(table); }
};

void RemoveOldKeys(std::u16string_view agent) {
    const std::unique_ptr<const char16_t*[]> keys = GetHashKeys(agentState.gv_queryConfHash);
    for (std::size_t i = 0; keys[i]; ++i) {
        if (IsPlanKey(agent, keys[i])) RemoveOldKey(std::u16string(keys[i]));
    }
}

void MergePlan(HashTablePtr plan, std::u16string_view agent, std::u16string_view fileName) {
    const bool hasKey = FindWorkflows("LoadQueryConfig", plan.get(), agent, fileName) != nullptr;
    if (!agentState.gv_queryConfHash) {
        agentState.gv_queryConfHash = plan.release();
        return;
    }
    // A file that lacks its own key has nothing to replace the plan in use with, which stays.
    if (hasKey) RemoveOldKeys(agent);
    // From here on the lists belong to the merged table.
    const std::unique_ptr<HashTable, FreeHashTableDeleter> merged(plan.release());
    MergeHashTable(merged.get(), agentState.gv_queryConfHash);
    Log2("\t Query conf key count after merging : %d \n", CountHashKeys(agentState.gv_queryConfHash));
    FreeListsLeftOver(merged.get(), fileName);
}

void LoadSlave(const std::u16string& agent) {
    const std::u16string fileName = ConcatStrings(conf_path::slavesDirectory, agent) + u"\\queryconf.txt";
    // A plan that is there and cannot be opened is not passed over in silence.
    if (!fileExists(fileName) && !MayExist(fileName)) return;
    RunGuarded("LoadQueryConfig", [&] { LoadQueryConfig(agent, fileName); });
}

bool IsAmong(const std::vector<std::u16string>& names, std::u16string_view name) {
    return std::any_of(names.begin(), names.end(),
                       [name](const std::u16string& known) { return CompareIgnoreCase(known, name) == 0; });
}

void CreateSlavesDirectory() {
    Log1("\t LoadConfFiles :: No query conf file exists under slaves directory.\n");
    if (const int result = Files().wmkdir(conf_path::slavesDirectory))
        Log1("\t LoadConfFiles :: %s cannot be created. errno is [%d] \n", conf_path::slavesDirectory, result);
}

void LoadSlaves() {
    Log3("\t Inside LoadSlaves() \n");
    FileSearch search(ConcatStrings(conf_path::slavesDirectory, u"*"));
    if (!search.hasFile()) {
        CreateSlavesDirectory();
        return;
    }
    std::vector<std::u16string> slaves;
    // The first two entries are the directory's own "." and "..".
    for (int position = 0; search.hasFile(); search.Next(), ++position) {
        if (position < 2) continue;
        const std::u16string& name = search.file.fileName;
        if (IsAmong(slaves, name)) {
            Log1("\t LoadConfFiles :: slave %s differs from another only in case and is passed over \n", name);
            continue;
        }
        slaves.push_back(name);
        LoadSlave(name);
    }
    if (search.error != error::noMoreFiles)
        Log1("\t LoadConfFiles :: the search of the slaves directory ended early. Error is [%u] \n", search.error);
}

/// A plan whose file is there and could not be read.
struct UnreadPlan {
    std::u16string agent;
    std::u16string fileName;
};
std::vector<UnreadPlan> unreadPlans;

std::uint32_t plansMerged = 0;  // so far

/// Notes whether the file has to be read again; true when it has to.
bool NoteUnread(std::u16string_view agent, std::u16string_view fileName, const JsonReadResult& read) {
    std::erase_if(unreadPlans, [agent](const UnreadPlan& plan) { return plan.agent == agent; });
    if (read.fileError == error::success || !MayExist(fileName)) return false;
    unreadPlans.push_back({std::u16string(agent), std::u16string(fileName)});
    return true;
}

/// Whether any list can run. The lists of all agents and slaves do.
bool IsAnyPlanInUse() { return agentState.gv_queryConfHash && CountHashKeys(agentState.gv_queryConfHash) > 0; }

bool HasPlan(std::u16string_view agent) {
    return agentState.gv_queryConfHash && ContainsHashKey(agentState.gv_queryConfHash, PlanKey(agent));
}

/// What happens while a plan cannot be loaded. At a start no plan is in use.
const char* WithoutThisPlan(bool isReadAgain = false) {
    if (IsAnyPlanInUse()) return "the plan in use stays";
    return isReadAgain ? "nothing is collected until it can be opened"
                       : "nothing is collected until the next start or the next plan";
}

/// Why each agent that has no plan in use lacks it, and what ends that. The agent's own, whose key is empty, is first.
std::map<std::u16string, std::string, std::less<>> missingPlans;

/// Tells kvagentctl status of an agent without a plan, also once the file is there.
void NoteMissingPlans() {
    if (missingPlans.empty() || !IsAnyPlanInUse()) {
        NoteMissingPlan("");
        return NoteObstacle(
            missingPlans.empty() ? "" : "no plan could be read at the start, " + missingPlans.begin()->second);
    }
    const auto& [agent, reason] = *missingPlans.begin();
    const std::string whose = agent.empty() ? "the agent itself" : "the slave " + platform::Utf8FromWide(agent);
    const std::size_t others = missingPlans.size() - 1;
    NoteObstacle("");
    NoteMissingPlan(fmt::format("nothing is collected for {}{}: its plan could not be read, {}", whose,
                                others == 0 ? "" : fmt::format(" and {} more", others), reason));
}

/// What loading a plan came to.
struct LoadResult {
    std::string failure;  // behind the file's name; empty after a success
    bool isReadAgain = false;
};

/// Only the agent whose plan it is stops lacking one.
void NoteLoad(std::u16string_view agent, std::u16string_view fileName, const LoadResult& result) noexcept {
    try {
        if (const auto missing = missingPlans.find(agent); missing != missingPlans.end()) missingPlans.erase(missing);
        if (!HasPlan(agent)) {
            missingPlans[std::u16string(agent)] = fmt::format(
                "{}: {}; {}", platform::Utf8FromWide(Files().NativePath(UnderBinPath(fileName))), result.failure,
                result.isReadAgain ? "it begins when that can be opened" : "the next start or the next plan begins it");
        }
        NoteMissingPlans();
    } catch (...) {
        // To tell of a plan must not undo its loading.
    }
}

/// A reader's message without the file's name in front of it.
std::string WithoutName(const std::string& message, std::u16string_view fileName) {
    const std::string start = platform::Utf8FromWide(fileName) + ": ";
    return message.starts_with(start) ? message.substr(start.size()) : message;
}

LoadResult LoadPlan(std::u16string_view agent, std::u16string_view name) {
    const HashTablePtr document = MakeHashTable();
    if (!document) {
        Log1("Initialise hash table is Failed\n");
        return {.failure = "the memory ran out"};
    }
    if (!IsThere(UnderBinPath(name))) {
        Log1("queryconf.txt file is not available...copy file from backup directory..\n");
        RestoreFromBackup(agent, name);
    }
    const JsonReadResult read = JSONFileToHash(document.get(), name, IsPlanMember);
    const bool isReadAgain = NoteUnread(agent, name, read);
    if (!read.ok) {
        Log1("\t LoadQueryConfig :: %s; %s \n", read.message, WithoutThisPlan(isReadAgain));
        return {.failure = WithoutName(read.message, name), .isReadAgain = isReadAgain};
    }
    if (!read.message.empty()) Log1("\t LoadQueryConfig :: %s \n", read.message);
    LogRepeatedMembers(read, name);
    HashTablePtr plan = TakePlan(document.get(), agent, name);
    if (!plan) {
        Log1("\t LoadQueryConfig :: %s is too large for the memory; %s \n", name, WithoutThisPlan());
        return {.failure = "it is too large for the memory"};
    }
    MergePlan(std::move(plan), agent, name);
    ++plansMerged;
    return {.failure = HasPlan(agent) ? "" : "it has no array " + platform::Utf8FromWide(PlanKey(agent))};
}

}  // namespace

void LoadConfFiles() {
    Log3("\t Inside LoadConfFiles() \n");
    missingPlans.clear();
    // Before anything else: whatever ends the reading of a plan, the next plan finds a scheduler.
    initializeScheduler();
    RunGuarded("LoadQueryConfig", [] { LoadQueryConfig(u"", conf_path::ownPlan); });
    if (CompareIgnoreCase(agentState.gv_masterAgent, u"YES") == 0) RunGuarded("LoadSlaves", LoadSlaves);
    agentState.gv_loadqueryconf = 1;
    scheduleQueryHashData();
}

void LoadQueryConfig(std::u16string_view agent, std::optional<std::u16string_view> fileName) {
    const LineBound bound;
    Log3("\t Inside LoadQueryConfig() \n");
    const std::u16string_view name = fileName.value_or(conf_path::ownPlan);
    LoadResult result{.failure = "its reading ended early, and agent.log tells why"};
    const auto note = [&] { NoteLoad(agent, name, result); };
    try {
        result = LoadPlan(agent, name);
    } catch (...) {
        note();
        throw;
    }
    note();
}

bool LoadUnreadPlans() {
    const std::uint32_t before = plansMerged;
    for (const UnreadPlan& plan : std::vector(unreadPlans)) {
        if (IsDirectory(plan.fileName) || !fileExists(plan.fileName)) continue;
        RunGuarded("LoadQueryConfig", [&] { LoadQueryConfig(plan.agent, plan.fileName); });
    }
    return plansMerged != before;
}

bool IsPlanKey(std::u16string_view agent, std::u16string_view key) {
    if (agent.empty()) return key == ownWorkflowsKey;
    return key.starts_with(slaveWorkflowsKey) && CompareIgnoreCase(key.substr(slaveWorkflowsKey.size()), agent) == 0;
}

void FreeReplacedPlans() { replacedPlans.clear(); }

const char* WorkflowFault(const VectorElement* element) {
    if (element->type != ValueType::table) return "is not an object";
    const auto* workflow = reinterpret_cast<const HashTable*>(element->value);
    const HashEntry* interval = GetHashEntry(workflow, u"interval");
    if (!interval) return "has no interval";
    if (interval->type != ValueType::integer && interval->type != ValueType::number)
        return "has an interval that is not a number of minutes";
    if (static_cast<std::int32_t>(interval->value) < 1) return "has an interval below 1";
    if (!GetHashVector(workflow, u"recordSetName")) return "has no array recordSetName";
    return nullptr;
}

PlanJudgement JudgeQueryConfig(std::u16string_view agent, std::u16string_view fileName) {
    const LineBound bound;
    Log3("\t Inside JudgeQueryConfig() \n");
    const HashTablePtr document = MakeHashTable();
    if (!document) {
        Log1("Initialise hash table is Failed\n");
        return PlanJudgement::unread;
    }
    const JsonReadResult read = JSONFileToHash(document.get(), fileName);
    if (!read.message.empty()) Log1("\t JudgeQueryConfig :: %s \n", read.message);
    if (read.fileError != error::success) return PlanJudgement::unread;
    return read.ok && IsUsablePlan(document.get(), agent, fileName) ? PlanJudgement::usable : PlanJudgement::refused;
}

bool IsUsablePlan(const HashTable* document, std::u16string_view agent, std::u16string_view fileName) {
    const Vector* workflows = FindWorkflows("JudgeQueryConfig", document, agent, fileName);
    return workflows && HasRunnableWorkflow(workflows, agent, fileName);
}

}  // namespace kv

// The query configuration files: what to collect, and how often. They are merged into gv_queryConfHash, one key for
// each agent: "WorkFlows", and "WorkFlows_<agent>" for each slave. The main thread loads them at the start; later calls
// come from the thread that serves requests.
#pragma once

#include <optional>
#include <string_view>

#include "foundation/hash_table.h"
#include "foundation/vector.h"

namespace kv {

/// Brings up the timer, reads the agent's own file and, on a master agent, those of its slaves, and schedules what they
/// hold. A std::exception ends the reading of one file. Called once.
void LoadConfFiles();

/// Reads one agent's file into the merged table, replacing that agent's key. agent is empty for this agent itself; an
/// absent fileName means "..\conf\queryconf.txt". A file that is not there is first restored from its backup; one that
/// is there and cannot be opened is waited for, at most two seconds.
///
/// A file that cannot be read, is malformed, lacks that agent's key or is too large for the memory is logged, and the
/// plan in use stays. Slaves' keys that differ only in case are one slave. The rest is taken, with a log line for each
/// that is left out: a member that is not an array or belongs to another file, and a workflow that is not an object,
/// lacks an interval of at least 1 minute, or lacks the array recordSetName. Members whose names are odd
/// (collection/plan_members.h) have a line, too. May throw std::bad_alloc.
void LoadQueryConfig(std::u16string_view agent, std::optional<std::u16string_view> fileName);

/// Reads again those files that were there and could not be read when LoadQueryConfig was last called for them. True
/// when one is now merged, and the schedule has to be built again. For the thread that serves requests.
[[nodiscard]] bool LoadUnreadPlans();

/// Frees the lists that LoadQueryConfig has replaced since the last call. Neither a timer nor gv_sortVec may refer to
/// them any more.
void FreeReplacedPlans();

/// Whether a plan's key is that of an agent's list; agent as above. Slaves' keys that differ only in case are one
/// slave.
bool IsPlanKey(std::u16string_view agent, std::u16string_view key);

/// Why an element of a list of workflows cannot run, as the end of a sentence; null when it can. A number with a
/// fraction has been cut by now.
const char* WorkflowFault(const VectorElement* element);

enum class PlanJudgement {
    usable,
    refused,  // it will never be usable, or is too large for the memory
    unread,   // the file could not be read this time
};

/// Whether LoadQueryConfig would take a plan for this agent from this file. The reason why not is logged at level 1.
[[nodiscard]] PlanJudgement JudgeQueryConfig(std::u16string_view agent, std::u16string_view fileName);

/// The same of a plan that has been read from there. False for one that is refused.
[[nodiscard]] bool IsUsablePlan(const HashTable* document, std::u16string_view agent, std::u16string_view fileName);

}  // namespace kv

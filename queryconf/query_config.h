// The query configuration files: what to collect, and how often. They are merged into gv_queryConfHash, one key per
// agent: "WorkFlows", and "WorkFlows_<agent>" for each slave.
#pragma once

#include <optional>
#include <string_view>

namespace kv {

/// Brings the timer up, reads the agent's own file and, on a master agent, those of its slaves, and schedules what they
/// hold. An exception ends the reading of one file. Called once.
void LoadConfFiles();

/// Reads one agent's file into the merged table, replacing that agent's key. agent is empty for this agent itself;
/// fileName none means "..\conf\queryconf.txt". A file that is not there is restored from its backup first; one that
/// is there and cannot be opened is waited for, two seconds at most.
///
/// A file that cannot be read, is malformed or lacks that agent's key is logged, and the plan in use stays. Keys of
/// slaves that differ in case only are one slave. Refused with a log line each, while the rest is taken: a member that
/// is not an array, one that belongs to another file, and a workflow that is not an object, has no interval of 1 minute
/// or more, or no array recordSetName.
void LoadQueryConfig(std::u16string_view agent, std::optional<std::u16string_view> fileName);

/// Reads again those files that were there and could not be read when LoadQueryConfig was last called for them; true
/// when one is merged by now, and the schedule is to be built again. For the thread that serves requests.
[[nodiscard]] bool LoadUnreadPlans();

/// Frees the lists that LoadQueryConfig has replaced since the last call. No timer and no gv_sortVec may refer to them
/// any more.
void FreeReplacedPlans();

enum class PlanJudgement {
    usable,
    refused,  // it never will be usable
    unread,   // the file could not be read this time
};

/// Whether LoadQueryConfig would take a plan for this agent from this file. Why not is logged, at level 1.
[[nodiscard]] PlanJudgement JudgeQueryConfig(std::u16string_view agent, std::u16string_view fileName);

}  // namespace kv

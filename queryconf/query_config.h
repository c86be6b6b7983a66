// The query configuration files: what to collect, and how often. They are merged into gv_queryConfHash, one key per
// agent: "WorkFlows", and "WorkFlows_<agent>" for each slave.
#pragma once

#include <optional>
#include <string_view>

namespace kv {

/// Reads the agent's own file and, on a master agent, those of its slaves, then brings the schedule up. Called once.
void LoadConfFiles();

/// Reads one agent's file into the merged table, replacing that agent's key. agent is empty for this agent itself;
/// fileName none means "..\conf\queryconf.txt". A file that is missing is restored from its backup first.
///
/// A file that cannot be read, is malformed or lacks that agent's key is logged, and the plan in use stays. Refused
/// with a log line each, while the rest is taken: a member that is no array, one that belongs to another file, and a
/// workflow that is no object, has no interval of 1 minute or more, or no array recordSetName.
void LoadQueryConfig(std::u16string_view agent, std::optional<std::u16string_view> fileName);

/// Frees the lists that LoadQueryConfig has replaced since the last call. No timer and no gv_sortVec may refer to them
/// any more.
void FreeReplacedPlans();

/// Whether LoadQueryConfig would take a plan for this agent from this file. Why not is logged, at level 1.
bool IsUsableQueryConfig(std::u16string_view agent, std::u16string_view fileName);

}  // namespace kv

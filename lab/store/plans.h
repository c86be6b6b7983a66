// The plans that agents have, as far as the lab knows them: what was pushed, and what it was told that agents start
// with.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "lab/store/store.h"

namespace kv::lab {

/// Keeps the plan that agents have from their start, a file's bytes in UTF-8 or UTF-16LE, in place of the former one.
/// False, and nothing is kept, when it lists no records.
bool KeepStartPlan(Store& store, std::string_view bytes);

/// The text of the plan that an agent was given last, or else of the one that agents start with; absent when neither is
/// known or it cannot be read. Whether the agent took it, or started with it, is not known.
std::optional<std::string> KnownPlan(Store& store, std::string_view agent);

/// One record of a plan.
struct PlannedRecord {
    std::string workflow;
    std::string interval;  // minutes
    std::string name;
    std::string device;  // that is polled; empty for the agent's own computer
    std::string source;  // the query, the script or the OIDs
};

/// The records of all workflows of a plan; none when the text is not a plan.
std::vector<PlannedRecord> RecordsOfPlan(const std::string& text);

}  // namespace kv::lab

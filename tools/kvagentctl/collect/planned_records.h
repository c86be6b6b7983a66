// Which records kvagentctl collect takes, from which plans.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "commandline/program.h"
#include "foundation/hash_table.h"
#include "platform/errors.h"

namespace kv::control {

/// A record of a plan, which refers to the plan's document.
struct PlannedRecord {
    const HashTable* record = nullptr;
    std::string_view kind;
    std::string workflow;
    std::vector<std::string> names;  // what people may call it by, the best one first
};

/// Fills in what collecting needs of the agent's settings; they are only read. The failure to read where the agent is.
platform::Error ReadSettings();

/// What a failure of ReadSettings means.
std::string SettingsFailureText(platform::Error failure);

/// The plans to collect: the given one, or the agent's own and, if asked for, those of its slaves. failure: of
/// ReadSettings.
std::vector<HashTablePtr> ReadPlans(const commandline::Given& given, platform::Error failure);

/// The records of all lists of workflows in a document.
std::vector<PlannedRecord> RecordsOf(const HashTable* document);

/// Keeps the records of a name. NotFoundError with all names when no record has it.
void KeepNamed(std::vector<PlannedRecord>& records, const std::string& name);

}  // namespace kv::control

// The lists of workflows at the top of a plan. The agent runs each of them, whatever its name.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

#include "foundation/hash_table.h"
#include "foundation/vector.h"

namespace kv::control {

struct PlanList {
    std::string name;
    const Vector* workflows = nullptr;  // the document's
    bool isExpected = false;            // the list by which the agent knows the plan
    std::size_t objects = 0;            // of its elements; nothing else is a workflow
    std::size_t runnable = 0;           // workflows that the agent does not leave out
};

/// The slave whose plan a document seems to be; empty for the agent's own.
std::u16string SlaveOf(const HashTable* document);

/// slave: whose plan it is, empty for the agent's own.
std::vector<PlanList> ListsOf(const HashTable* document, std::u16string_view slave);

/// The names of the lists beside the expected one in which a workflow can run, with commas between.
std::string NamesOfOthers(const std::vector<PlanList>& lists);

/// What the agent does with a plan that it can read and does not find usable, to go on from what is wrong with it.
std::string OutcomeOfUnusable(const std::vector<PlanList>& lists);

}  // namespace kv::control

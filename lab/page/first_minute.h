// What the page shows before records come: agents whose first upload is awaited, and how to connect one.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "lab/store/plans.h"
#include "lab/store/store.h"

namespace kv::lab {

/// Agents whose first upload is on its way, or in time still, and those whose first upload is late.
struct AwaitedAgents {
    std::vector<Agent> due;
    std::vector<Agent> late;
};

/// Splits agents that have uploaded nothing yet.
AwaitedAgents SplitAwaited(const std::vector<Agent>& agents, std::int64_t now);

/// How to connect an agent.
void AddConnecting(std::string& html);

/// The agents that are due, each with a countdown, and what they collect as far as that is known. Nothing without
/// agents. unfolded: nothing else is on the page yet.
void AddDueAgents(std::string& html, Store& store, const std::vector<Agent>& due, bool unfolded, std::int64_t now);

/// The agents that are late, in a line each.
void AddLateAgents(std::string& html, const std::vector<Agent>& late);

}  // namespace kv::lab

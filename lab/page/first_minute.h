// What the page shows before records come: agents whose first upload is awaited, and how to connect one.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "lab/store/plans.h"
#include "lab/store/store.h"

namespace kv::lab {

/// An agent that has called and uploaded nothing yet, and what it collects as far as that is known.
struct AwaitedAgent {
    Agent agent;
    std::vector<PlannedRecord> plan;
};

/// Nothing when no agent is awaited and some are known.
void AddFirstMinute(std::string& html, const std::vector<AwaitedAgent>& awaited, std::int64_t awaitedMore,
                    bool anyAgent, std::int64_t now);

}  // namespace kv::lab

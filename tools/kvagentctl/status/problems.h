// What needs attention in how an agent is.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "tools/kvagentctl/status/agent_facts.h"

namespace kv::control {

/// Bounds from which a state is worth a warning, or critical.
struct Thresholds {
    std::int64_t warningAge = 0;    // of the oldest zip or record, seconds
    std::int64_t criticalAge = 0;   // of the oldest zip
    std::uint64_t warningFree = 0;  // room on the disk, bytes
    std::uint64_t criticalFree = 0;
};

/// As monitoring plugins number them; not in the order of their weight.
enum class PluginStatus { fine = 0, warning = 1, critical = 2, unknown = 3 };

struct Problem {
    PluginStatus severity;
    std::string text;
};

/// What is wrong, the worst first.
std::vector<Problem> JudgeFacts(const AgentFacts& facts, const Thresholds& thresholds);

}  // namespace kv::control

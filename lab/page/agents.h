// The agents and how they stand, and the faults that are set.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "lab/page/table.h"
#include "lab/store/store.h"

namespace kv::lab {

/// An agent that has not called for this long is silent. By default it uploads every 5 minutes.
inline constexpr std::int64_t silentMilliseconds = 15 * std::int64_t{60'000};

/// "in contact", "silent for 20 minutes", or what it reported last, such as "AGENT_DOWN".
std::string ContactText(const Agent& agent, std::int64_t now);

/// Those that are not in contact first.
void AddAgents(std::string& html, std::vector<Agent> agents, std::int64_t now);

Table AgentTable(const std::vector<Agent>& agents, std::int64_t now);

/// A notice of the faults that are set; nothing without faults.
void AddFaults(std::string& html, const std::vector<Fault>& faults);

Table FaultTable(const std::vector<Fault>& faults);

}  // namespace kv::lab

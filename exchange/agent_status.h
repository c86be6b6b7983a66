// The agent's last word to its server.
#pragma once

namespace kv {

/// Tells the server that this agent or its computer goes down, as gv_agentStatus says. The outcome is logged, and a
/// failed report is not repeated. Takes as long as the server's addresses take to answer.
void SendAgentStatus();

}  // namespace kv

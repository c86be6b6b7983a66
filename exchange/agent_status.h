// The agent's last word to its server.
#pragma once

namespace kv {

/// Tells the server that this agent or its computer goes down, as gv_agentStatus says. The outcome is logged; nothing
/// is tried again. Takes as long as the server's addresses take to answer.
void SendAgentStatus();

}  // namespace kv

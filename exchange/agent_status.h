// The agent's last word to its server.
#pragma once

namespace kv {

/// Tells the server that this agent or its computer goes down, as gv_agentStatus says. The outcome is logged.
/// It is one request, tried again as http/http_transaction.h says; one that failed is not made again. Takes as long as
/// the server's addresses take to answer.
void SendAgentStatus();

}  // namespace kv

#include "exchange/agent_status.h"

namespace kv {

void SendAgentStatus() {}

}  // namespace kv

#include "foundation/agent_state.h"

namespace kv {

AgentState agentState;

}  // namespace kv

#include "foundation/agent_state.h"

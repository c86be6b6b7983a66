// The agent's own routines, run step by step as the model says, in virtual time and against a server on this computer.
#pragma once

#include <string>

#include "tests/long/model.h"
#include "tests/support/loopback.h"
#include "tests/support/test_agent.h"

namespace kv::test {

/// Each life of the agent is a child process. This one starts no thread.
class SteppedAgent : public TestAgent {
  protected:
    SteppedAgent();
    ~SteppedAgent() override { CloseSocket(listener_); }

    /// Runs a whole trace; where the agent differs from the model, or nothing. The seed chooses how far each thread
    /// gets between two steps of the model before a crash.
    std::string Follow(const model::Trace& trace, const model::Limits& limits, unsigned seed);

  private:
    Socket listener_;
};

}  // namespace kv::test

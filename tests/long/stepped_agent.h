// The agent's own routines, run step by step as the model says, in virtual time and against a server on this computer.
#pragma once

#include <filesystem>
#include <random>
#include <string>

#include "tests/long/model.h"
#include "tests/support/loopback.h"

namespace kv::test {

/// What the processes of a trace share.
struct SharedMemory {
    model::Answer answer;    // of the server, to the next request
    int plansServed;         // the version of the plan that the server has
    char difference[20000];  // between the model and the agent, once there is one
};

/// Takes one connection after another: keeps the zips that it takes as `takenFolder`/<name>.<time>, and serves plans.
/// Never returns.
[[noreturn]] void ServeForever(Socket listener, const SharedMemory& shared, const std::filesystem::path& takenFolder);

/// Where the parts of an agent stand, and its server's zips.
struct AgentFolders {
    std::filesystem::path conf, data, zipdata, taken;
};

/// An agent from its start to a crash or the end of a trace. Lives and dies in a process of its own.
class SteppedAgent {
  public:
    SteppedAgent(AgentFolders folders, SharedMemory& shared);

    /// Makes the agent take a step that leads to `after`; why it differs from that, or nothing.
    std::string Take(model::Step step, const model::State& after);

    /// Goes on between two steps of the model, to die at any file operation.
    void GoOnALittle(std::mt19937& random);

  private:
    std::string Observed(const model::State& state) const;

    AgentFolders folders_;
    SharedMemory& shared_;
};

/// A plan as a file.
std::string PlanBytes(int version);

}  // namespace kv::test

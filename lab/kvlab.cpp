#include "lab/kvlab.h"

#include <array>

#include "lab/command_line.h"

namespace kv::lab {

namespace {

constexpr Item groups[] = {
    {"request", "Requests to agents: add, list, answers."},
    {"conf", "Plans of agents: push."},
    {"fault", "Faults that the server makes on order: set, clear, list."},
};

std::string Notes() { return "All commands work while the server runs, and later.\n\n"; }

}  // namespace

const commandline::Program& LabProgram() {
    static const std::array topics{ServerCommands(), RequestCommands(), ConfigurationCommands(), FaultCommands()};
    static const commandline::Program program{
        "kvlab", "plays the central server, to try and test the monitoring agent against", topics, groups, Notes};
    return program;
}

}  // namespace kv::lab

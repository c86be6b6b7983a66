#include "lab/commands/kvlab.h"

#include <array>

#include "lab/commands/command_line.h"

namespace kv::lab {

namespace {

constexpr Item groups[] = {
    {"request", "Requests to agents: add, list, answers."},
    {"conf", "Plans of agents: push."},
    {"fault", "Faults that the server makes on request: set, clear, list."},
};

std::string Notes() { return "All commands except serve and fleet work whether or not the server runs.\n\n"; }

}  // namespace

const commandline::Program& LabProgram() {
    static const std::array topics{ServerCommands(),        RecordCommands(), PlotCommands(), RequestCommands(),
                                   ConfigurationCommands(), FaultCommands(),  FleetCommands()};
    static const commandline::Program program{"kvlab", "plays the central server, for testing the monitoring agent",
                                              topics, groups, Notes};
    return program;
}

}  // namespace kv::lab

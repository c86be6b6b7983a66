#include "tools/kvagentctl/program.h"

#include <array>
#include <string>

#include "platform/console_tool.h"
#include "tools/kvagentctl/verbs.h"

namespace kv {

namespace {

std::string Notes() { return std::string(platform::RegistryPlace()) + "\n\n"; }

}  // namespace

const commandline::Program& ControlTool() {
    static const std::array verbs{control::StatusVerb(), control::QueryVerb(), control::CollectVerb(),
                                  control::SnmpVerb(),   control::SetupVerb(), control::CheckVerb(),
                                  control::PinVerb(),    control::LogVerb()};
    static const std::array<std::span<const commandline::Command>, 1> topics{verbs};
    static const commandline::Program program{
        "kvagentctl", "shows, checks and tries what the monitoring agent of this computer does", topics, {}, Notes};
    return program;
}

}  // namespace kv

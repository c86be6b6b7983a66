// The real program in its one-shot modes, and without the settings it needs.
#include <gtest/gtest.h>
#include <initializer_list>

#include "foundation/version.h"
#include "tests/end_to_end/installed_agent.h"
#include "tests/support/test_agent.h"

namespace kv::test {
namespace {

TEST(RunModes, EndWithTheirExitCodes) {
    struct Case {
        const char* title;
        std::initializer_list<const char*> arguments;
        int exitCode;
        const char* logged;  // in agent.log
    };
    const Case cases[] = {
        {"an unknown argument", {"-i"}, 0, "Invalid parameter -i\n"},
        {"help, in capitals", {"--HELP"}, 0, "Invalid parameter --HELP\n"},
        {"install, in capitals", {"/I"}, 1, "Going to install service\n"},
        {"remove", {"/u"}, 1, "Calling UN-INSTALL option\n"},
        {"by hand, without a service manager", {}, 0, "Error code : 1063, Error Message : "},
    };
    for (const Case& each : cases) {
        SCOPED_TRACE(each.title);
        InstalledAgent agent;
        agent.SetNumber(u"", u"AgentLogLevel", 3);
        EXPECT_EQ(agent.Run(each.arguments), each.exitCode);
        EXPECT_NE(agent.ReadLog().find(each.logged), std::string::npos) << agent.ReadLog();
        const std::string notes = each.arguments.size() == 0 ? "Entered into StartServiceCtrlDispatcher!\n1063\n" : "";
        EXPECT_EQ(TestAgent::Read(agent.state / "drive_c" / "test.txt"), notes);
    }
}

TEST(RunModes, TellOfTheProgramWithoutATrace) {
    for (const char* argument : {"--help", "-h", "--version"}) {
        InstalledAgent agent;
        std::filesystem::remove_all(agent.state);
        EXPECT_EQ(agent.Run({argument}), 0);
        EXPECT_FALSE(std::filesystem::exists(agent.state)) << argument;
        EXPECT_EQ(agent.ReadLog(), "");
    }
    EXPECT_EQ(RunShell("'" KV_AGENT_PROGRAM "' --version").output, "MonitoringAgent " + std::string(programVersion));
}

TEST(RunModes, NameAMistypedArgumentAndMakeNothingWhereNoAgentIs) {
    InstalledAgent agent;
    std::filesystem::remove_all(agent.state);
    const auto run = RunShell("KVAGENT_STATE_DIR='" + agent.state.string() + "' '" KV_AGENT_PROGRAM "' --bogus 2>&1");
    EXPECT_NE(run.output.find("not '--bogus'; --help"), std::string::npos) << run.output;
    EXPECT_FALSE(std::filesystem::exists(agent.state));
}

TEST(RunModes, NoteAMissingInstallDirectory) {
    for (const char* registry : {"", "no database"}) {
        SCOPED_TRACE(registry);
        InstalledAgent agent;
        std::filesystem::remove_all(agent.state);
        if (*registry != '\0') TestAgent::Write(agent.state / "registry.db", registry + std::string(5000, 'x'));
        EXPECT_EQ(agent.Run({"/t"}), 1);
        EXPECT_EQ(TestAgent::Read(agent.state / "drive_c" / "test.txt"),
                  "Not able to fetch the KV Agent installation directory from the registry\n");
    }
}

}  // namespace
}  // namespace kv::test

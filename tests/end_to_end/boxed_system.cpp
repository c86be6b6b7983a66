#include "tests/end_to_end/boxed_system.h"

#include <cstdlib>
#include <signal.h>
#include <unistd.h>

#include "tests/support/test_agent.h"

namespace kv::test {

BoxedSystem::BoxedSystem(const std::filesystem::path& folder) : log_(folder / "box.log") {
    const std::string answer = folder / "box.pid";
    const std::string command = std::string(KV_BOXED_SYSTEMD) + " kvbox" + std::to_string(getpid()) + " " +
                                folder.string() + " >" + answer + " 2>" + log_.string() + " || echo failed >>" + answer;
    keeper_ = popen(command.c_str(), "we");
    InstalledAgent::Eventually([&] { return TestAgent::Read(answer).ends_with('\n'); }, 60000);
    firstProcess_ = std::atoi(TestAgent::Read(answer).c_str());
}

BoxedSystem::~BoxedSystem() { pclose(keeper_); }

std::string BoxedSystem::ReadLog() const { return TestAgent::Read(log_); }

bool BoxedSystem::IsRunning() const { return kill(firstProcess_, 0) == 0; }

ShellOutcome BoxedSystem::Run(const std::string& commands) const {
    // Options of sanitizers name files that the box may not have.
    return RunShell("env -u LSAN_OPTIONS -u TSAN_OPTIONS nsenter -t " + std::to_string(firstProcess_) +
                    " -a sh 2>&1 <<'END_OF_COMMANDS'\n" + commands + "\nEND_OF_COMMANDS");
}

}  // namespace kv::test

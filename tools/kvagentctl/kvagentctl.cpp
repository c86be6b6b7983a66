// kvagentctl, the program for people who look after an agent.
#include <cstdio>
#include <cstdlib>

#include "agent/backends.h"
#include "commandline/run.h"
#include "platform/backend.h"
#include "tools/kvagentctl/program.h"

int main(int argc, char** argv) {
    kv::InstallBackends();
    std::vector<std::string> words = platform::CommandLineWords(argc, argv);
    if (!words.empty()) words.erase(words.begin());  // the program's own name
    const int exitCode = kv::commandline::RunCommandLine(kv::ControlTool(), words);
    // A query that is stuck may still run on its thread, so nothing static may be destroyed under it.
    std::fflush(nullptr);
    std::_Exit(exitCode);
}

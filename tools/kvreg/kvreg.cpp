// kvreg, the command-line tool of the agent's registry.
#include "commandline/run.h"
#include "platform/backend.h"
#include "platform/console_tool.h"
#include "tools/kvreg/kvreg_commands.h"

int main(int argc, char** argv) {
    platform::InstallBackend();
    platform::InstallRegistry();
    std::vector<std::string> words = platform::CommandLineWords(argc, argv);
    if (!words.empty()) words.erase(words.begin());  // the program's own name
    return kv::commandline::RunCommandLine(kv::RegistryTool(), words);
}

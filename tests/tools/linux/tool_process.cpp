#include "tests/tools/tool_process.h"

#include <sys/wait.h>

#include "tests/support/isolation.h"

namespace kv::test {

std::FILE* StartTool(const ToolFiles& files, const std::vector<std::string>& words) {
    std::string line = "exec '" + files.program + "'";
    for (const std::string& word : words) line += " '" + word + "'";
    line += " <'" + files.input.string() + "' 2>'" + files.errors.string() + "'";
    return popen(line.c_str(), "re");
}

int EndTool(std::FILE* tool) {
    const int status = pclose(tool);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

void ShareRegistry(const std::filesystem::path& folder) { IsolateRegistry(folder); }

}  // namespace kv::test

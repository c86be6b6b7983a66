#include "tests/tools/tool_process.h"

#include <sys/wait.h>

#include "tests/support/isolation.h"

namespace kv::test {

std::FILE* StartTool(const std::vector<std::string>& words, const std::filesystem::path& errors) {
    std::string line = "exec '" KVREG_PROGRAM "'";
    for (const std::string& word : words) line += " '" + word + "'";
    return popen((line + " 2>'" + errors.string() + "'").c_str(), "re");
}

int EndTool(std::FILE* tool) {
    const int status = pclose(tool);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

void ShareRegistry(const std::filesystem::path& folder) { IsolateRegistry(folder); }

}  // namespace kv::test

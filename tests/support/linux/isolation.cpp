#include "tests/support/isolation.h"

#include <cstdlib>
#include <stdexcept>

namespace kv::test {

const std::string_view fileLineEnd = "\n";

std::filesystem::path MakeTemporaryFolder() {
    std::string pattern = (std::filesystem::temp_directory_path() / "kvagent-test-XXXXXX").string();
    if (mkdtemp(pattern.data()) == nullptr) throw std::runtime_error("no temporary folder");
    return pattern;
}

void RemoveFolder(const std::filesystem::path& folder) {
    std::error_code ignored;
    std::filesystem::remove_all(folder, ignored);
}

void IsolateRegistry(const std::filesystem::path& folder) { setenv("KVAGENT_STATE_DIR", folder.c_str(), 1); }

}  // namespace kv::test

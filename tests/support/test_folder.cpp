#include "tests/support/test_folder.h"

#include <fstream>
#include <set>
#include <sstream>

#include "platform/backend.h"
#include "tests/support/isolation.h"

namespace kv::test {

namespace fs = std::filesystem;

TestFolder::TestFolder(const fs::path& workFolder)
    : folder(MakeTemporaryFolder()), work(folder / workFolder), formerDirectory_(fs::current_path()) {
    fs::create_directories(work);
    fs::create_directories(folder / "state");
    IsolateRegistry(folder / "state");
    platform::InstallBackend();
    fs::current_path(work);
}

TestFolder::~TestFolder() {
    fs::current_path(formerDirectory_);
    RemoveFolder(folder);
}

std::string TestFolder::ReadText(const fs::path& path) {
    std::string text = Read(path);
    for (std::size_t at = 0; (at = text.find(fileLineEnd, at)) != text.npos; ++at)
        text.replace(at, fileLineEnd.size(), "\n");
    return text;
}

void TestFolder::Write(const fs::path& path, std::string_view bytes) {
    fs::create_directories(path.parent_path());
    std::ofstream(path, std::ios::binary) << bytes;
}

std::string TestFolder::Read(const fs::path& path) {
    std::ifstream file(path, std::ios::binary);
    std::ostringstream bytes;
    bytes << file.rdbuf();
    return bytes.str();
}

std::vector<std::string> TestFolder::FilesIn(const fs::path& directory) {
    std::set<std::string> names;
    for (const auto& entry : fs::directory_iterator(directory)) names.insert(entry.path().filename().string());
    return {names.begin(), names.end()};
}

}  // namespace kv::test

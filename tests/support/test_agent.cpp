#include "tests/support/test_agent.h"

#include <fstream>
#include <memory>
#include <set>
#include <sstream>

#include "agent/backends.h"
#include "agent/entry.h"
#include "agent/log_file.h"
#include "foundation/agent_state.h"
#include "foundation/log.h"
#include "foundation/resource_lock.h"
#include "platform/utf.h"
#include "tests/support/isolation.h"

namespace kv::test {

namespace fs = std::filesystem;

void ResetAgentState() {
    std::destroy_at(&agentState);
    std::construct_at(&agentState);
    InitAgentParams();
}

TestAgent::TestAgent() : formerDirectory_(fs::current_path()) {
    folder = MakeTemporaryFolder();
    bin = folder / "monitoring" / "bin";
    conf = folder / "monitoring" / "conf";
    data = bin / "data";
    zipdata = bin / "zipdata";
    fs::create_directories(bin);
    fs::create_directories(conf / "scripts");
    fs::create_directories(folder / "monitoring" / "logs");
    fs::create_directories(folder / "state");
    IsolateRegistry(folder / "state");
    InstallBackends();
    fs::current_path(bin);
    InitMutex();
    InitResourceLockTable();
    ResetAgentState();
    agentState.gv_ocAgentBinPath = platform::WideFromUtf8(bin.string() + "\\");
    RotateLogger(std::nullopt);
    logState.gv_logLevel = 4;
}

TestAgent::~TestAgent() {
    StopLogging();
    logState.gv_logLevel = 0;
    ResetAgentState();
    fs::current_path(formerDirectory_);
    RemoveFolder(folder);
}

std::string TestAgent::LogText() const { return ReadText(folder / "monitoring" / "logs" / "agent.log"); }

int TestAgent::TimesLogged(std::string_view text, std::size_t from) const {
    const std::string log = LogText();
    int times = 0;
    for (std::size_t at = from; (at = log.find(text, at)) != log.npos; ++at) ++times;
    return times;
}

std::string TestAgent::ReadText(const fs::path& path) {
    std::string text = Read(path);
    for (std::size_t at = 0; (at = text.find(fileLineEnd, at)) != text.npos; ++at)
        text.replace(at, fileLineEnd.size(), "\n");
    return text;
}

void TestAgent::Write(const fs::path& path, std::string_view bytes) {
    fs::create_directories(path.parent_path());
    std::ofstream(path, std::ios::binary) << bytes;
}

std::string TestAgent::Read(const fs::path& path) {
    std::ifstream file(path, std::ios::binary);
    std::ostringstream bytes;
    bytes << file.rdbuf();
    return bytes.str();
}

std::vector<std::string> TestAgent::FilesIn(const fs::path& directory) {
    std::set<std::string> names;
    for (const auto& entry : fs::directory_iterator(directory)) names.insert(entry.path().filename().string());
    return {names.begin(), names.end()};
}

}  // namespace kv::test

#include "tests/support/test_agent.h"

#include <memory>

#include "agent/backends.h"
#include "agent/entry.h"
#include "agent/log_file.h"
#include "foundation/agent_state.h"
#include "foundation/log.h"
#include "foundation/registry_store.h"
#include "foundation/resource_lock.h"
#include "platform/utf.h"

namespace kv::test {

namespace fs = std::filesystem;

void ResetAgentState() {
    std::destroy_at(&agentState);
    std::construct_at(&agentState);
    InitAgentParams();
}

TestAgent::TestAgent()
    : TestFolder("monitoring/bin"),
      bin(work),
      conf(folder / "monitoring" / "conf"),
      data(bin / "data"),
      zipdata(bin / "zipdata") {
    fs::create_directories(conf / "scripts");
    fs::create_directories(folder / "monitoring" / "logs");
    InstallBackends();
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
}

void TestAgent::SetSetting(std::u16string_view key, std::u16string_view name, std::u16string_view data,
                           platform::RegistryType type) {
    ASSERT_EQ(writeValue(platform::RootKey::localMachine, key, name, data, type), platform::error::success);
}

std::string TestAgent::LogText() const { return ReadText(folder / "monitoring" / "logs" / "agent.log"); }

int TestAgent::TimesLogged(std::string_view text, std::size_t from) const {
    const std::string log = LogText();
    int times = 0;
    for (std::size_t at = from; (at = log.find(text, at)) != log.npos; ++at) ++times;
    return times;
}

}  // namespace kv::test

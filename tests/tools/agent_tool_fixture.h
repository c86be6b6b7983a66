// The fixture of tests of kvagentctl beside an agent's settings.
#pragma once

#include "foundation/registry_failure.h"
#include "foundation/registry_store.h"
#include "platform/utf.h"
#include "tests/tools/tool_fixture.h"
#include "tools/kvreg/registry_tree.h"

namespace kv::test {

/// The settings are removed at the end. Where registries are not files they are the computer's, and a test is skipped
/// on one that has an agent.
class AgentToolTest : public ToolTest {
  protected:
    AgentToolTest() : ToolTest(KVAGENTCTL_PROGRAM) {
        platform::InstallRegistry();
        KeyContents contents;
        isFree_ = IsGone(ReadKey(agentKeyPath, contents));
    }
    ~AgentToolTest() override {
        if (isFree_) platform::Registry().RegDeleteTreeW(platform::RootKey::localMachine, agentKeyPath);
    }
    void SetUp() override {
        if (!isFree_) GTEST_SKIP() << "an agent is installed here";
    }

    void SetInstallDirectory() const {
        writeValue(platform::RootKey::localMachine, agentKeyPath, u"KVAgentInstallDir",
                   platform::WideFromUtf8(Utf8(folder / "")), platform::RegistryType::text);
    }

    /// Of kvreg.
    Outcome Registry(const Words& words) const { return RunTool({KVREG_PROGRAM, files.input, files.errors}, words); }
    std::string Get(const std::string& key, const std::string& name) const {
        return Registry({"get", key, name}).output;
    }

    const std::string agentKey = platform::Utf8FromWide(agentKeyPath);
    const std::string serverKey = platform::Utf8FromWide(serverInfoKeyPath);

  private:
    bool isFree_ = false;
};

}  // namespace kv::test

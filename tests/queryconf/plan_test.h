// What tests of loading and replacing plans share.
#pragma once

#include <optional>
#include <utility>

#include "foundation/agent_state.h"
#include "foundation/file_utils.h"
#include "foundation/hash_table.h"
#include "platform/threads.h"
#include "platform/utf.h"
#include "queryconf/query_config.h"
#include "tests/support/test_agent.h"

namespace kv::test {

/// UTF-16LE bytes with a byte order mark.
inline std::string WideBytes(std::string_view text) {
    return "\xFF\xFE" + Utf16LittleEndianBytes(platform::WideFromUtf8(text));
}

/// The text of a plan with one list of workflows of the given names. Their "order" says the opposite, and is ignored.
inline std::string PlanText(const std::string& key, const std::vector<std::string>& names) {
    std::string text = "{\"" + key + "\":[";
    int order = 9;
    for (const std::string& name : names)
        text += "{\"wfname\":\"" + name + "\",\"order\":" + std::to_string(order--) +
                ",\"interval\":5,\"recordSetName\":[]},";
    return text + "]}";
}

/// The timer thread is not started: these tests look at the plan, not at its runs.
class PlanTest : public TestAgent {
  protected:
    PlanTest() {
        platform::ThreadOperations operations = platform::Threads();
        operations.CreateThread = [](platform::ThreadStart, void*) { return platform::ThreadHandle{1}; };
        threads_.emplace(operations);
    }
    ~PlanTest() override { FreePlan(); }

    static void FreePlan() {
        FreeAllVector(std::exchange(agentState.gv_sortVec, nullptr));
        FreeReplacedPlans();
        FreeAllHashTable(std::exchange(agentState.gv_queryConfHash, nullptr));
    }

  private:
    std::optional<platform::ScopedOperations<platform::ThreadOperations>> threads_;
};

}  // namespace kv::test

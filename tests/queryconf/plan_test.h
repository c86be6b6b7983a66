// The fixture of tests of loading and replacing plans.
#pragma once

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

/// A plan with one list of workflows of these names. Their "order", which is ignored, says the opposite.
inline std::string PlanText(const std::string& key, const std::vector<std::string>& names) {
    std::string text = "{\"" + key + "\":[";
    int order = 9;
    for (const std::string& name : names)
        text += "{\"wfname\":\"" + name + "\",\"order\":" + std::to_string(order--) +
                ",\"interval\":5,\"recordSetName\":[]},";
    return text + "]}";
}

/// Starts no timer thread, because these tests look at plans and not at their runs.
class PlanTest : public TestAgent {
  protected:
    ~PlanTest() override { FreePlan(); }

    static void FreePlan() {
        FreeAllVector(std::exchange(agentState.gv_sortVec, nullptr));
        FreeReplacedPlans();
        FreeAllHashTable(std::exchange(agentState.gv_queryConfHash, nullptr));
    }

  private:
    const Replaced<platform::ThreadOperations> threads_{&platform::ThreadOperations::CreateThread,
                                                        [](auto&&...) { return platform::ThreadHandle{1}; }};
};

}  // namespace kv::test

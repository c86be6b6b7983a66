// The fixture of the tests of collection.
#pragma once

#include <iterator>

#include "collection/collect.h"
#include "collection/execute.h"
#include "collection/script.h"
#include "collection/snmp.h"
#include "collection/wmi.h"
#include "foundation/agent_state.h"
#include "foundation/file_utils.h"
#include "platform/utf.h"
#include "tests/collection/scripts.h"
#include "tests/support/test_agent.h"

namespace kv::test {

namespace fs = std::filesystem;

struct ScriptRow {
    const char* title;
    std::string body, record;  // of the script, and what it becomes
    const char* logged;        // a part of the log
};

class Collection : public TestAgent {
  protected:
    Collection() {
        agentState.gv_agentKey.Publish(u"K");
        agentState.gv_custID = u"Acme";
    }

    void WriteScript(const std::string& name, const std::string& body) {
        Write(conf / "scripts" / name, ScriptText(body));
        fs::permissions(conf / "scripts" / name, fs::perms::owner_all);
    }

    /// Runs a new script whose output is wanted; the text of its record in UTF-8, or "(absent)".
    std::string RunScript(const std::string& body, std::u16string_view parameters = u"") {
        WriteScript("script.bat", body);
        EXPECT_EQ(ExecuteScript(u"script.bat", parameters, u"TRUE"), 0);
        return Record(agentState.gv_ocLastCreatedJSONNum);
    }

    void RunEach(const std::vector<ScriptRow>& rows, std::u16string_view parameters = u"") {
        for (const ScriptRow& row : rows) {
            EXPECT_EQ(RunScript(row.body, parameters), row.record) << row.title;
            EXPECT_TRUE(Logged(row.logged)) << row.title;
        }
    }

    std::string Record(std::uint32_t number) const {
        const fs::path path = data / ("Agent_K_" + std::to_string(number) + ".txt");
        return fs::exists(path) ? platform::Utf8FromWide(TextFromUtf16LittleEndian(Read(path))) : "(absent)";
    }

    std::ptrdiff_t CountDataFiles() const { return std::distance(fs::directory_iterator(data), {}); }
};

}  // namespace kv::test

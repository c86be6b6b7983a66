// A fixture: an installed agent in a temporary folder.
#pragma once

#include "platform/registry.h"
#include "tests/support/test_folder.h"

namespace kv::test {

/// Makes an install tree (monitoring/bin, conf, conf/scripts, logs) with bin as the working directory, installs all
/// operations, gives agentState its defaults and gv_ocAgentBinPath, and opens the log at level 4. Undoes all of it at
/// the end.
class TestAgent : public TestFolder {
  protected:
    TestAgent();
    ~TestAgent() override;

    std::filesystem::path bin;      // <folder>/monitoring/bin, the working directory
    std::filesystem::path conf;     // <folder>/monitoring/conf
    std::filesystem::path data;     // bin/data, not made yet
    std::filesystem::path zipdata;  // bin/zipdata, not made yet

    /// Stores a value of the registry's local machine.
    static void SetSetting(std::u16string_view key, std::u16string_view name, std::u16string_view data,
                           platform::RegistryType type = platform::RegistryType::text);

    /// The whole log, in UTF-8.
    std::string LogText() const;
    bool Logged(std::string_view text) const { return LogText().find(text) != std::string::npos; }
    /// How often a text stands in the log, from an offset on.
    int TimesLogged(std::string_view text, std::size_t from = 0) const;
};

/// Puts agentState back to the program's defaults.
void ResetAgentState();

}  // namespace kv::test

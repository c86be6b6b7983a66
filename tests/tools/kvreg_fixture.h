// The fixture of tests of kvreg: a key of the registry, removed at the end.
#pragma once

#include "platform/backend.h"
#include "tests/tools/tool_fixture.h"

namespace kv::test {

/// The tests stay below the key.
class Kvreg : public ToolTest {
  protected:
    Kvreg() : ToolTest(KVREG_PROGRAM) {
        platform::InstallRegistry();
        Run({"set", key, "v", "1"});  // makes the registry, and says so
        Run({"delete", key, "--yes"});
    }
    ~Kvreg() override { Run({"delete", key, "--yes"}); }

    std::string Get(const std::string& path, const std::string& name) const { return Run({"get", path, name}).output; }

    const std::string key = "Software\\KvregTest";
    const std::string header = "Windows Registry Editor Version 5.00\n";
    const std::string file = Utf8(folder / "file.reg");
};

}  // namespace kv::test

// The fixture of tests of kvreg: a folder and a key of the registry, removed at the end.
#pragma once

#include <filesystem>
#include <gmock/gmock.h>
#include <string>
#include <vector>

#include "platform/backend.h"
#include "tests/support/isolation.h"
#include "tests/support/test_agent.h"
#include "tests/tools/tool_process.h"

namespace kv::test {

namespace fs = std::filesystem;
using ::testing::HasSubstr;
using Words = std::vector<std::string>;

/// The tests stay below the key.
class Kvreg : public ::testing::Test {
  protected:
    struct Outcome {
        int exitCode = -1;
        std::string output;
        std::string errors;
    };

    Kvreg() {
        fs::create_directory(folder / "state");
        ShareRegistry(folder / "state");
        platform::InstallBackend();
        platform::InstallRegistry();
        Run({"delete", key, "--yes"});
    }
    ~Kvreg() override {
        Run({"delete", key, "--yes"});
        RemoveFolder(folder);
    }

    static constexpr auto Write = TestAgent::Write;
    static constexpr auto Read = TestAgent::Read;
    static constexpr auto FilesIn = TestAgent::FilesIn;

    static std::string Utf8(const fs::path& path) {
        const std::u8string name = path.u8string();
        return {name.begin(), name.end()};
    }

    Outcome Run(const Words& words) const {
        Outcome outcome;
        std::FILE* const tool = StartTool(words, folder / "errors");
        for (int byte = std::fgetc(tool); byte != EOF; byte = std::fgetc(tool))
            outcome.output += static_cast<char>(byte);
        outcome.exitCode = EndTool(tool);
        outcome.errors = TestAgent::ReadText(folder / "errors");
        return outcome;
    }

    std::string Get(const std::string& path, const std::string& name) const { return Run({"get", path, name}).output; }

    const std::string key = "Software\\KvregTest";
    const fs::path folder = MakeTemporaryFolder();
    const std::string header = "Windows Registry Editor Version 5.00\n";
    const std::string file = Utf8(folder / "file.reg");
};

}  // namespace kv::test

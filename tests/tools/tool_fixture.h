// The fixture of tests that run a tool on its command line: a folder, removed at the end.
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

/// A verb and what follows it.
inline Words Line(const std::string& verb, Words words) {
    words.insert(words.begin(), verb);
    return words;
}

struct Outcome {
    int exitCode = -1;
    std::string output;
    std::string errors;
};

class ToolTest : public ::testing::Test {
  protected:
    /// The tool and this process share a registry.
    explicit ToolTest(const std::string& program) : files{program, folder / "input", folder / "errors"} {
        fs::create_directory(folder / "state");
        ShareRegistry(folder / "state");
        platform::InstallBackend();
        Write(Utf8(files.input), "");
    }
    ~ToolTest() override { RemoveFolder(folder); }

    static constexpr auto Write = TestAgent::Write;
    static constexpr auto Read = TestAgent::Read;
    static constexpr auto FilesIn = TestAgent::FilesIn;

    static std::string Utf8(const fs::path& path) {
        const std::u8string name = path.u8string();
        return {name.begin(), name.end()};
    }

    Outcome Run(const Words& words) const { return RunTool(files, words); }

    /// Runs the tool, which has to print both texts among others.
    void Expect(const Words& words, int exitCode, const std::string& output, const std::string& errors = "") const {
        SCOPED_TRACE(::testing::PrintToString(words));
        const Outcome outcome = Run(words);
        EXPECT_EQ(outcome.exitCode, exitCode);
        EXPECT_THAT(outcome.output, HasSubstr(output));
        EXPECT_THAT(outcome.errors, HasSubstr(errors));
    }

    static Outcome RunTool(const ToolFiles& files, const Words& words) {
        Outcome outcome;
        std::FILE* const tool = StartTool(files, words);
        for (int byte = std::fgetc(tool); byte != EOF; byte = std::fgetc(tool))
            outcome.output += static_cast<char>(byte);
        outcome.exitCode = EndTool(tool);
        outcome.errors = TestAgent::ReadText(files.errors);
        return outcome;
    }

    /// The next line that a tool prints; empty at its end.
    static std::string NextLine(std::FILE* tool) {
        std::string line(1000, '\0');
        return std::fgets(line.data(), static_cast<int>(line.size()), tool) ? std::string(line.c_str()) : "";
    }

    const fs::path folder = MakeTemporaryFolder();
    const ToolFiles files;
};

}  // namespace kv::test

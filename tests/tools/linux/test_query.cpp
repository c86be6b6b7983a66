// kvagentctl query: this computer's rows, and the prompt on a terminal of its own.
#include <algorithm>
#include <array>
#include <poll.h>
#include <pty.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "tests/tools/agent_tool_fixture.h"

namespace kv::test {

namespace {

class QueryVerb : public AgentToolTest {};

const std::string self =
    "SELECT ParentProcessId, Name, Priority FROM Win32_Process WHERE ProcessId = " + std::to_string(getpid());

TEST_F(QueryVerb, PrintsRowsInTheOrderOfSelect) {
    const std::string parent = std::to_string(getppid());
    const std::tuple<Words, int, std::string, const char*> rows[] = {
        {{self}, 0, "ParentProcessId  Name", ""},
        {{self, "--csv"}, 0, "ParentProcessId,Name,Priority\r\n" + parent + ",test_kvagentctl,", ""},
        {{self, "--line"}, 0, "ParentProcessId = " + parent + "\n           Name = test_kv", ""},
        {{self, "--json"}, 0, "\"ParentProcessId\": " + parent + ",\n    \"Name\": \"test_kv", ""},
        {{self, "--json", "--record"}, 0, "\"ParentProcessId\": \"" + parent + "\"", ""},
        {{self, "--json", "--csv"}, 2, "", "only one of"},
        {{self, "--namespace", "//SRV/ROOT/CIMV2"}, 1, "", "only this computer is asked"},
        {{self, "--namespace", "ROOT\\X"}, 1, "", "Invalid namespace (8004100e): ROOT\\X"},
        {{"SELECT", Utf8(files.input), "FROM", "Win32_Process"}, 2, "", "stands in single quotes"},
        {{"select", "name", "from", "win32_timezone", "--json"}, 1, "", "lacks the property name"},
        {{"--json", "SELECT TotalPhysicalMemory FROM Win32_ComputerSystem"}, 0, "\"TotalPhysicalMemory\": ", ""},
        {{"--json", "SELECT Primary FROM Win32_OperatingSystem"}, 0, "\"Primary\": true", ""},
        {{"--csv", "SELECT Organization, Primary FROM Win32_OperatingSystem"}, 0, "\r\n,true\r\n", ""},
        {{"--json", "SELECT Name FROM Win32_Process WHERE ProcessId = 4294967295"}, 0, "]\n", ""},
        {{"SELECT Name FROM Win32_Proces"}, 3, "", "Invalid class (80041010): the class Win32_Proces does not"},
        {{"SELECT Nam FROM Win32_Process"}, 1, "", "Invalid query (80041017): Win32_Process lacks the property Nam; "},
        {{"SELECT Name FRM Win32_Process"}, 1, "", "at character 13, \"FRM\""},
        {{"SELECT Name FROM Win32_Process;"}, 1, "", "; leave out the ; at the end"},
        {{"SELECT Name, __PATH FROM Win32_Processor"}, 0, "Name", "__PATH: system properties"},
        {{"--classes", "logicaldisk"}, 0, "Win32_LogicalDisk", ""},
        {{"--classes", "nix"}, 3, "", "no class has 'nix' in its name"},
        {{"--describe", "win32_process"}, 0, "Handle  ", ""},
        {{"--describe", "Process"}, 3, "", "the class Process does not exist; did you mean Win32_Process?"},
    };
    for (const auto& [words, exitCode, output, errors] : rows) Expect(Line("query", words), exitCode, output, errors);
}

TEST_F(QueryVerb, ReadsQueriesFromStandardInput) {
    Write(Utf8(files.input),
          self +
              ";\n\n.mode json\nselect Primary from Win32_OperatingSystem\nSELECT x FROM y\n.describe\n.nix\n.quit\n" +
              self);
    const Outcome outcome = Run({"query"});
    EXPECT_EQ(outcome.exitCode, 3);
    EXPECT_THAT(outcome.output, ::testing::MatchesRegex("ParentProcessId  Name.*\n.*test_kv.*\n\\[\n.*true\n.*\\]\n"));
    for (const char* told : {"kvagentctl: line 5: Invalid class (80041010): the class y does not exist\n",
                             "line 6: usage: .describe CLASS\n", "line 7: unknown command '.nix'; .help lists them\n"})
        EXPECT_THAT(outcome.errors, HasSubstr(told));
    Write(Utf8(files.input),
          "Quit\nSELECT Name FROM Win32_Process WHERE Name LIKE 'nix*'\nSELECT\u00A0Name FROM Win32_BIOS;");
    const std::string hints = Run({"query"}).errors;
    for (const char* told :
         {"line 1: 'Quit' is not a query; did you mean .quit?", "in LIKE 'nix*' the * stands for its",
          "character 7 is a no-break space (U+00A0): write a plain blank"})
        EXPECT_THAT(hints, HasSubstr(told));
}

TEST_F(QueryVerb, EndsWhenNobodyReadsAndWhenALineDoesNotEnd) {
    Write(Utf8(files.input), std::string(1 << 20, ' '));
    EXPECT_THAT(Run({"query"}).errors, HasSubstr("line 1 of standard input has more than 262144 bytes"));
    std::string lines;
    for (int i = 0; i < 10000; ++i) lines += ".help\n";
    Write(Utf8(files.input), lines);
    std::FILE* const tool = StartTool(files, {"query"});
    EXPECT_NE(std::fgetc(tool), EOF);
    EndTool(tool);
    const std::string errors = Read(Utf8(files.errors));
    EXPECT_LE(std::count(errors.begin(), errors.end(), '\n'), 1) << errors;
}

/// The tool's prompt on a terminal of its own.
class Terminal {
  public:
    explicit Terminal(const fs::path& home) {
        winsize size{.ws_row = 24, .ws_col = 60, .ws_xpixel = 0, .ws_ypixel = 0};
        pid_ = forkpty(&terminal_, nullptr, nullptr, &size);
        if (pid_ != 0) return;
        const std::string variable = "XDG_STATE_HOME=" + home.string();
        execl("/usr/bin/env", "env", variable.c_str(), "TERM=vt100", KVAGENTCTL_PROGRAM, "query", nullptr);
        _exit(1);
    }

    /// What the tool prints up to a text, or so far when that does not come in ten seconds.
    std::string Until(const std::string& text) const {
        std::string printed;
        std::array<char, 4096> block{};
        pollfd waited{terminal_, POLLIN, 0};
        while (printed.find(text) == std::string::npos && poll(&waited, 1, 10000) > 0) {
            const ssize_t size = read(terminal_, block.data(), block.size());
            if (size <= 0) break;
            printed.append(block.data(), static_cast<std::size_t>(size));
        }
        return printed;
    }

    std::string Type(const std::string& keys, const std::string& until) const {
        return write(terminal_, keys.data(), keys.size()) < 0 ? "" : Until(until);
    }

    int End() const {
        int status = 0;
        Type("\x04", "never printed");
        close(terminal_);  // hangs up, should the tool still be there
        waitpid(pid_, &status, 0);
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }

  private:
    int terminal_ = -1;
    pid_t pid_ = -1;
};

TEST_F(QueryVerb, PromptsOnATerminal) {
    const Terminal first(folder);
    first.Until("wql> ");
    first.Type("SELECT junk", "junk");
    EXPECT_THAT(first.Type("\x03", "wql> "), HasSubstr("^C"));
    first.Type("SELECT Primary FROM Win32_OperatingS\t", "ystem");
    EXPECT_THAT(first.Type("WHERE Prim\t= TRUE\r", "wql> "), HasSubstr("Primary\r\ntrue\r\n"));
    EXPECT_THAT(first.Type("SELECT * FROM Win32_OperatingSystem\r", "wql> "), HasSubstr(" Primary = true\r\n"));
    EXPECT_EQ(first.End(), 0);
    const fs::path history = folder / "kvagentctl" / "history";
    EXPECT_EQ(fs::status(history).permissions(), fs::perms::owner_read | fs::perms::owner_write);
    const Terminal second(folder);
    second.Until("wql> ");
    EXPECT_THAT(second.Type("\x1b[A\x1b[A\r", "wql> "), HasSubstr("Primary\r\ntrue\r\n"))
        << "the line of the first one";
    second.Type("SELECT * FROM Win32_Product\r", "Vendor");  // far more than a terminal holds
    EXPECT_THAT(second.Type("\x03", "wql> "), HasSubstr("interrupted\r\n"));
    EXPECT_EQ(second.End(), 0);
    fs::remove(history);
    ASSERT_EQ(mkfifo(history.c_str(), 0600), 0);
    const Terminal third(folder);
    EXPECT_THAT(third.Until("wql> "), HasSubstr("history is not a file; lines are not kept\r\n"));
    EXPECT_THAT(third.Type(".mode\r", "wql> "), HasSubstr("usage: .mode auto"));
    EXPECT_EQ(third.End(), 0);
}

}  // namespace

}  // namespace kv::test

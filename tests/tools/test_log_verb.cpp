// kvagentctl log on a log of the test's own.
#include <fstream>

#include "tests/tools/agent_tool_fixture.h"
#include "tools/kvagentctl/log/log_entries.h"

namespace kv::test {

namespace {

std::string Entry(int second, const std::string& text) {
    return "\n2026/11/26  23:33:0" + std::to_string(second) + ":100 " + text + " \n";
}

class LogVerb : public AgentToolTest {
  protected:
    LogVerb() { fs::create_directories(logs); }
    void SetUp() override {
        AgentToolTest::SetUp();
        if (!IsSkipped()) SetInstallDirectory();
    }
    void Rotate(int from) const {
        for (int n = from; n > 0; --n) fs::rename(logs / Name(n - 1), logs / Name(n));
    }
    static std::string Name(int number) {
        return number == 0 ? "agent.log" : "agent" + std::to_string(number) + ".log";
    }

    const fs::path logs = folder / "monitoring" / "logs";
};

TEST_F(LogVerb, ShowsEntriesWithoutTheUsualOnes) {
    EXPECT_EQ(Run({"log"}).exitCode, 3);
    Write(logs / Name(2), Entry(1, "oldest"));
    Write(logs / Name(1), Entry(2, "older"));
    Write(logs / Name(0), Entry(3, "\t F :: it ended. retVal is [12029]") +
                              Entry(4, "ReadDwordRegistryData: Error while reading DWORD value of X : 2") +
                              Entry(4, "ReadDwordRegistryData: Error while reading DWORD value of X : 23") +
                              Entry(5, "dump") + "00 01\n02\n" + Entry(6, "\t  last\x1B"));
    const std::string entries =
        "2026/11/26 23:33:03.100 F :: it ended. retVal is [12029]: no connection; nobody listens there, or a firewall "
        "is in between (error 12029)\n"
        "2026/11/26 23:33:04.100 ReadDwordRegistryData: Error while reading DWORD value of X : 23\n"
        "2026/11/26 23:33:05.100 dump | 00 01 | 02\n2026/11/26 23:33:06.100 last\\x1b\n";
    EXPECT_EQ(Run({"log"}).output, entries);
    EXPECT_EQ(Run({"log", "-n", "1"}).output, "2026/11/26 23:33:06.100 last\\x1b\n");
    EXPECT_EQ(Run({"log", "-n", "5"}).output, "2026/11/26 23:33:02.100 older\n" + entries);
    const std::string all = Run({"log", "--all"}).output;
    EXPECT_THAT(all, testing::StartsWith("2026/11/26 23:33:01.100 oldest\n2026/11/26 23:33:02.100 older\n"));
    EXPECT_THAT(all, HasSubstr("value of X : 2\n"));
    fs::remove(logs / Name(0));
    fs::create_directory(logs / Name(0));
    EXPECT_THAT(Run({"log"}).errors, HasSubstr("agent.log is a directory, not a file; move it away"));
}

TEST_F(LogVerb, FollowsPastRotationsAndLosesNothing) {
    Write(logs / Name(0), Entry(1, "first"));
    std::FILE* const tool = StartTool(files, {"log", "--follow"});
    EXPECT_EQ(NextLine(tool), "2026/11/26 23:33:01.100 first\n");
    std::ofstream(logs / Name(0), std::ios::app) << Entry(2, "second");
    Rotate(1);
    Write(logs / Name(0), Entry(3, "third"));
    Rotate(2);
    Write(logs / Name(0), Entry(4, "fourth"));
    for (const char* text : {"02.100 second", "03.100 third", "04.100 fourth"})
        EXPECT_EQ(NextLine(tool), "2026/11/26 23:33:" + std::string(text) + "\n");
    std::ofstream(logs / Name(0), std::ios::trunc) << Entry(5, "the log was emptied, and is long again by now");
    EXPECT_EQ(NextLine(tool), "2026/11/26 23:33:05.100 the log was emptied, and is long again by now\n");
    fs::remove(logs / Name(0));
    Write(logs / Name(0), Entry(6, "deleted"));
    EXPECT_EQ(NextLine(tool), "2026/11/26 23:33:06.100 deleted\n");
    std::ofstream(logs / Name(0), std::ios::trunc) << Entry(7, "short");
    EXPECT_EQ(NextLine(tool), "2026/11/26 23:33:07.100 short\n");
    EXPECT_EQ(EndTool(tool), 0);  // nobody reads any more
}

TEST(LogEntries, TellsWhatNumbersMean) {
    const std::pair<const char*, const char*> rows[] = {
        {"retVal is [12029]", "no connection; "},
        {"something went wrong in InternetUploadBinaryFile. return value [13]", "the server refused it"},
        {"Failed to post the data to server with error code [12002]", "no answer in time"},
        {"Failed to post the data to the server cs with http status code 503", "the server is busy, or down"},
        {"Failed with the http status code 418", "the server refuses the request"},
        {"failed with the error code while getting http status code 12030", "the connection was closed"},
        {"the script a.sh of the record R failed: Error Code : 127", "of a shell: a command was not found"},
    };
    for (const auto& [entry, meaning] : rows)
        EXPECT_THAT(control::ReadableEntry(entry), HasSubstr(std::string(entry) + ": " + meaning));
    for (const char* bare : {"Error is [0x0] [ok]", "Error Code : 5", "it ended. retVal is [0]"})
        EXPECT_EQ(control::ReadableEntry(bare), bare);
}

TEST(LogEntries, TakesPiecesOfAnySize) {
    const std::string log = Entry(1, "one") + Entry(2, "two") + "more\n";
    for (std::size_t size = 1; size <= log.size(); ++size) {
        std::vector<std::string> entries;
        control::LogEntries cutter([&](const std::string& entry) { entries.push_back(entry); });
        for (std::size_t at = 0; at < log.size(); at += size) cutter.Feed(log.substr(at, size));
        cutter.Finish();
        EXPECT_EQ(entries,
                  (std::vector<std::string>{"2026/11/26  23:33:01:100 one", "2026/11/26  23:33:02:100 two | more"}))
            << size;
    }
}

}  // namespace

}  // namespace kv::test

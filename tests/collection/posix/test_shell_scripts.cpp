// Collection by scripts of the shell.
#include <algorithm>
#include <fstream>
#include <iterator>
#include <vector>

#include "platform/process.h"
#include "tests/collection/collection_test.h"

namespace kv::test {
namespace {

TEST_F(Collection, WhatAShellPrintsBecomesARecordWhateverTheEnd) {
    struct Row {
        const char* title;
        const char* body;
        std::string record;
        const char* logged;
    };
    for (const Row& row : std::vector<Row>{
             {"ended by a signal", "echo half; kill -9 $$", "half\n", "Unable to create a output file for the command"},
             {"bytes that are no UTF-8", "printf 'a\\303(\\377z'", "a\uFFFD(\uFFFDz", "Error Code : 0 "},
             {"a child left behind", "(sleep 1; echo late) & echo done", "done\n", "left behind goes on writing"},
         }) {
        SCOPED_TRACE(row.title);
        EXPECT_EQ(RunScript(row.body), row.record);
        EXPECT_TRUE(Logged(row.logged));
    }
    EXPECT_EQ(DataFiles(), 3) << "nothing but the records is left";
}

TEST_F(Collection, AHundredMegabytesBecomeOneRecord) {
    WriteScript("big.bat", "head -c 104857599 /dev/zero | tr '\\0' x; printf '\\303'; printf '\\251'");
    ExecuteScript(u"big.bat", u"", u"true");
    ASSERT_EQ(fs::file_size(data / "Agent_K_1.txt"), 2 * 104857600u);
    std::ifstream record(data / "Agent_K_1.txt");
    record.seekg(-4, std::ios::end);
    EXPECT_EQ(std::string(std::istreambuf_iterator<char>(record), {}), std::string("x\0\xE9\0", 4));
}

TEST_F(Collection, AScriptThatIgnoresTheSignalsIsEndedAtTheLimit) {
    std::uint32_t limit = 0;
    platform::ProcessOperations hasty = platform::Processes();
    hasty.WaitForSingleObject = [&limit, real = hasty.WaitForSingleObject](platform::ProcessHandle process,
                                                                           std::uint32_t milliseconds) {
        limit = std::max(limit, milliseconds);
        return real(process, std::min(milliseconds, 300u));
    };
    const platform::ScopedOperations<platform::ProcessOperations> scoped(hasty);
    EXPECT_EQ(RunScript("trap '' TERM; echo begun; printf $$ >pid; while :; do sleep 1; done"), "begun\n");
    EXPECT_EQ(limit, 120000u);
    EXPECT_TRUE(Logged("as time is exceeded 2 Minutes"));
    EXPECT_FALSE(fs::exists("/proc/" + Read(bin / "pid")));
}

}  // namespace
}  // namespace kv::test

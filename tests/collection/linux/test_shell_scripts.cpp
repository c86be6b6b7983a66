// Collection by scripts of the shell.
#include "platform/clock.h"
#include "platform/process.h"
#include "tests/collection/collection_test.h"

namespace kv::test {
namespace {

TEST_F(Collection, WhatAShellPrintsBecomesARecordWhateverTheEnd) {
    RunEach({
        {"ended by a signal", "echo half; kill -9 $$", "half\n", "Unable to create a output file for the command"},
        {"bytes that are no UTF-8", "printf 'a\\303(\\377z'", "a\uFFFD(\uFFFDz", "Error Code : 0 "},
        {"16-bit text", "printf '{\\0\"\\0\\254\\040'", "{\"\u20ac", "Error Code : 0 "},
        {"a child left behind", "(sleep 1; echo late) & echo done", "done\n", "left behind goes on writing"},
    });
    EXPECT_EQ(DataFiles(), 4) << "nothing but the records is left";
}

TEST_F(Collection, AScriptThatIgnoresTheSignalsIsEndedAtTheLimit) {
    std::uint32_t waited = 0;
    platform::ProcessOperations hasty = platform::Processes();
    hasty.WaitForSingleObject = [&](platform::ProcessHandle, std::uint32_t milliseconds) {
        for (int look = 0; look < 1000 && !fs::exists("pid"); ++look) platform::Clock().Sleep(10);
        waited += milliseconds;
        return platform::error::waitTimeout;
    };
    const platform::ScopedOperations<platform::ProcessOperations> scoped(hasty);
    EXPECT_EQ(RunScript("trap '' TERM; echo begun; echo $$ >new; mv new pid; while :; do sleep 1; done"), "begun\n");
    EXPECT_EQ(waited, 120000u + 1000u) << "and a moment for its end";
    EXPECT_TRUE(Logged("as time is exceeded 2 Minutes"));
    EXPECT_FALSE(fs::exists("/proc/" + Read(bin / "pid")));
}

}  // namespace
}  // namespace kv::test

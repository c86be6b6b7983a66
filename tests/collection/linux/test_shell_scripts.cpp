// Collection by shell scripts.
#include "platform/clock.h"
#include "platform/process.h"
#include "tests/collection/collection_test.h"

namespace kv::test {
namespace {

TEST_F(Collection, TheOutputOfAShellScriptBecomesARecord) {
    RunEach({
        {"ended by a signal", "echo half; kill -9 $$", "half\n", "Unable to create a output file for the command"},
        {"bytes that are not UTF-8", "printf 'a\\303(\\377z'", "a\uFFFD(\uFFFDz", "Error Code : 0 "},
        {"16-bit text", "printf '{\\0\"\\0\\254\\040'", "{\"\u20ac", "Error Code : 0 "},
        {"a child left behind", "(sleep 1; echo late) & echo done", "done\n", "left behind goes on writing"},
    });
    EXPECT_EQ(CountDataFiles(), 4) << "only the records are left";
}

TEST_F(Collection, AScriptThatIgnoresSignalsIsEndedAtTheLimit) {
    std::uint32_t waited = 0;
    const Replaced hasty(&platform::ProcessOperations::WaitForSingleObject, [&](auto, std::uint32_t milliseconds) {
        for (int look = 0; look < 1000 && !fs::exists("pid"); ++look) platform::Clock().Sleep(10);
        waited += milliseconds;
        return platform::error::waitTimeout;
    });
    EXPECT_EQ(RunScript("trap '' TERM; echo begun; echo $$ >new; mv new pid; while :; do sleep 1; done"), "begun\n");
    EXPECT_EQ(waited, 120000u + 1000u) << "the limit, and a second for its end";
    EXPECT_TRUE(Logged("as time is exceeded 2 Minutes"));
    EXPECT_FALSE(fs::exists("/proc/" + Read(bin / "pid")));
}

}  // namespace
}  // namespace kv::test

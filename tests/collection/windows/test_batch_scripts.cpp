// Collection by batch files.
#include "platform/clock.h"
#include "platform/process.h"
#include "tests/collection/collection_test.h"

namespace kv::test {
namespace {

constexpr const char* aSecond = "ping -n 2 127.0.0.1 >nul";

TEST_F(Collection, TheOutputOfABatchFileBecomesARecord) {
    Write(bin / "bytes", "\x84\x94\x81");
    RunEach({
        {"the console's western code page", printFile + "bytes", "\u00E4\u00F6\u00FC", "Error Code : 0 "},
        {"UTF-8", "echo \xC3\xBC", "\u00FC\r\n", "Error Code : 0 "},
        {"a child left behind", "start /b cmd /c \"" + std::string(aSecond) + " & echo late\"\necho done", "done\r\n",
         "left behind goes on writing"},
    });
}

TEST_F(Collection, ABatchFileAndItsChildrenAreEndedAtTheLimit) {
    // The child starts no processes: if one is ended while it starts, Wine loses it and keeps its output open.
    Write(bin / "inner.bat",
          "@echo off\r\necho x >inside\r\n:again\r\nif not exist go goto again\r\necho late >late\r\n");
    const Replaced hasty(&platform::ProcessOperations::WaitForSingleObject, [&](auto, std::uint32_t) {
        for (int look = 0; look < 2000 && !fs::exists(bin / "inside"); ++look) platform::Clock().Sleep(10);
        return platform::Error{platform::error::generalFailure};  // counts as a wait that is over
    });
    EXPECT_EQ(RunScript("echo begun\ncmd /c inner.bat"), "begun\r\n");
    EXPECT_TRUE(Logged("as time is exceeded 2 Minutes"));
    Write(bin / "go", "");
    platform::Clock().Sleep(500);
    EXPECT_FALSE(fs::exists(bin / "late"));
}

}  // namespace
}  // namespace kv::test

// Collection by batch files.
#include <chrono>
#include <thread>
#include <utility>

#include "platform/process.h"
#include "tests/collection/collection_test.h"

namespace kv::test {
namespace {

constexpr const char* aSecond = "ping -n 2 127.0.0.1 >nul";

TEST_F(Collection, WhatABatchFilePrintsBecomesARecordWhateverTheEnd) {
    Write(bin / "bytes", "\x84\x94\x81");
    RunEach({
        {"the console's code page, as the west has it", printFile + "bytes", "\u00E4\u00F6\u00FC", "Error Code : 0 "},
        {"UTF-8", "echo \xC3\xBC", "\u00FC\r\n", "Error Code : 0 "},
        {"a child left behind", "start /b cmd /c \"" + std::string(aSecond) + " & echo late\"\necho done", "done\r\n",
         "left behind goes on writing"},
    });
}

TEST_F(Collection, ABatchFileIsEndedWithItsChildrenAtTheLimit) {
    platform::ProcessOperations hasty = platform::Processes();
    hasty.WaitForSingleObject = [real = hasty.WaitForSingleObject, first = true](auto process, std::uint32_t) mutable {
        // A wait that fails counts as one whose time is over.
        return std::exchange(first, false) ? real(process, 400) : platform::Error{platform::error::generalFailure};
    };
    const platform::ScopedOperations<platform::ProcessOperations> scoped(hasty);
    const std::string inner = std::string(aSecond) + " & echo late >late";
    EXPECT_EQ(RunScript("echo begun\ncmd /c \"" + inner + "\""), "begun\r\n");
    EXPECT_TRUE(Logged("as time is exceeded 2 Minutes"));
    std::this_thread::sleep_for(std::chrono::seconds(1));
    EXPECT_FALSE(fs::exists(bin / "late"));
}

}  // namespace
}  // namespace kv::test

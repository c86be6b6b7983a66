// The smaller lists of operations on Linux.
#include <atomic>
#include <cstdlib>
#include <fstream>
#include <list>
#include <string>
#include <sys/mman.h>
#include <thread>

#include "platform/linux/linux.h"
#include "platform/memory.h"
#include "platform/system_facts.h"
#include "tests/support/linux/zone_setting.h"
#include "tests/support/test_folder.h"

namespace platform::test {

namespace {

using SystemTest = kv::test::TestFolder;

TEST_F(SystemTest, LocalTimeFollowsTheZone) {
    const kv::test::ZoneSetting zone("XYZ-5:30");
    const LocalTime time = Clock().ToLocalTime(1772701507042);
    EXPECT_EQ(time.day * 1000000 + time.hour * 10000 + time.minute * 100 + time.second, 5143507);
    EXPECT_EQ(time.millisecond, 42);
    EXPECT_EQ(Clock().FromLocalTime(time), 1772701507042);
}

TEST_F(SystemTest, ReadsWhatTheServiceManagerHandsOver) {
    std::string secret;
    unsetenv("CREDENTIALS_DIRECTORY");
    EXPECT_EQ(SystemFacts().ReadCredential("password", secret), error::fileNotFound);
    setenv("CREDENTIALS_DIRECTORY", folder.c_str(), 1);
    EXPECT_EQ(SystemFacts().ReadCredential("password", secret), error::fileNotFound);
    std::ofstream(folder / "password") << "s3cret\n";
    EXPECT_EQ(SystemFacts().ReadCredential("password", secret), error::success);
    EXPECT_EQ(secret, "s3cret\n");
    unsetenv("CREDENTIALS_DIRECTORY");
}

/// This process's pages in memory, and how many of them are of files such as libraries.
struct ResidentPages {
    long all = 0, ofFiles = 0;

    ResidentPages() {
        long total = 0;
        std::ifstream("/proc/self/statm") >> total >> all >> ofFiles;
    }
};

/// Alone in its page of constants.
alignas(4096) volatile const char constants[4096] = {1};

TEST_F(SystemTest, GivesLibraryPagesBackWhileThreadsRun) {
    char* const patched = const_cast<char*>(&constants[0]);  // like a debugger
    ASSERT_EQ(mprotect(patched, sizeof constants, PROT_READ | PROT_WRITE), 0);
    *patched = 2;
    ASSERT_EQ(mprotect(patched, sizeof constants, PROT_READ), 0);
    std::atomic<bool> done{false};
    std::thread busy([&] {
        for (int number = 0; !done; ++number) EXPECT_EQ(std::stoi(std::to_string(number)), number);
    });
    const ResidentPages before;
    for (int round = 0; round < 50; ++round) TrimResidentLibraryPages();
    EXPECT_LT(ResidentPages().ofFiles, before.ofFiles);
    EXPECT_EQ(constants[0], 2);
    done = true;
    busy.join();
}

TEST_F(SystemTest, GivesFreedMemoryBack) {
#ifdef __SANITIZE_ADDRESS__
    GTEST_SKIP() << "the sanitizer keeps freed memory";
#endif
    const ResidentPages before;
    std::list<std::string> pieces(40'000, std::string(1000, 'x'));
    const std::list<std::string> kept(1);  // at the top of the heap
    pieces.clear();
    ReleaseFreeMemoryAfter(largePieceBytes - 1);
    EXPECT_GT(ResidentPages().all, before.all + 8000);
    ReleaseFreeMemoryAfter(largePieceBytes);
    EXPECT_LT(ResidentPages().all, before.all + 1000);
    long left = 0;
    std::thread([&left] {
        const ResidentPages first;
        for (const std::size_t bytes : {20'000'000U, 16'000'000U}) {
            const std::string piece(bytes, 'x');
            EXPECT_GT(ResidentPages().all, first.all + 3000);
        }
        left = ResidentPages().all - first.all;
    }).join();
    EXPECT_LT(left, 1000) << "a thread keeps no large pieces";
}

}  // namespace

}  // namespace platform::test

// The wait for the bin directory, and for another agent behind it, in virtual time.
#include <functional>
#include <gmock/gmock.h>
#include <new>

#include "agent/bin_directory.h"
#include "agent/directory_lock.h"
#include "agent/health_report.h"
#include "agent/log_file.h"
#include "foundation/agent_state.h"
#include "platform/files.h"
#include "platform/utf.h"
#include "tests/support/test_agent.h"
#include "tests/support/virtual_clock.h"

namespace kv {
namespace {

namespace fs = std::filesystem;
using ::testing::HasSubstr;

struct BinDirectory : test::TestAgent {
    BinDirectory() {
        StopLogging();  // Windows renames no folder with an open file
        agentState.gv_ocAgentBinPath = platform::WideFromUtf8(folder.string()) + u"\\monitoring\\bin\\";
    }

    const fs::path monitoring = folder / "monitoring";
    test::VirtualClock clock;
};

TEST_F(BinDirectory, IsWaitedForUntilItCanBeEntered) {
    const auto replace = [](const fs::path& path) {
        fs::current_path(path.root_path());
        fs::rename(path, path.string() + "-away");
        Write(path, "a file");
    };
    int memoryFailures = 0;
    const auto enter = platform::Files().wchdir;
    const test::Replaced failing(&platform::FileOperations::wchdir, [&](std::u16string_view path) {
        return --memoryFailures == 0 ? throw std::bad_alloc() : enter(path);
    });
    const struct {
        const char* title;
        fs::path replaced;
        std::string told;
    } rows[] = {
        {"bin is a file", bin, "bin is not a directory"},
        {"monitoring is a file", monitoring, "monitoring is not a directory"},
        {"the install directory is a file", folder, "of KVAgentInstallDir is not a directory"},
        {"no memory for the first look", bin, "bin is not a directory"},
    };
    for (const auto& [title, path, told] : rows) {
        SCOPED_TRACE(title);
        replace(path);
        memoryFailures = std::string_view(title).starts_with("no memory") ? 1 : 0;
        int looks = 0;
        clock.onSleep = [&, &broken = path](std::uint32_t) {
            if (++looks < 3) return;
            fs::remove(broken);
            fs::rename(broken.string() + "-away", broken);
        };
        testing::internal::CaptureStderr();
        EXPECT_TRUE(WaitForBinDirectory());
        EXPECT_THAT(testing::internal::GetCapturedStderr(), HasSubstr(told + "; the agent collects and sends nothing"));
        EXPECT_EQ(looks, 3);
        EXPECT_TRUE(fs::equivalent(fs::current_path(), bin));
    }
}

TEST_F(BinDirectory, LeavesTheFilesOfTheAgentThatItWaitsForAlone) {
    const fs::path status = monitoring / "logs" / "status.json";
    fs::current_path(monitoring);
    fs::remove_all(bin);
    Write(bin, "a file");
    platform::DirectoryLock other;
    int sleeps = 0;
    clock.onSleep = [&](std::uint32_t) {
        if (++sleeps == 1) {
            EXPECT_THAT(Read(status), HasSubstr("bin is not a directory"));
            fs::remove(bin);
            fs::create_directory(bin);
            EXPECT_EQ(platform::Files().LockDirectory(*agentState.gv_ocAgentBinPath, u"", lockFileName, other),
                      platform::error::success);
            Write(status, "of the other one");
            return;
        }
        EXPECT_TRUE(WaitsForAgent());
        ReportStop();
        EXPECT_EQ(Read(status), "of the other one");
        platform::Files().CloseHandle(other.directory);
    };
    testing::internal::CaptureStderr();
    WaitForDirectory();
    EXPECT_THAT(testing::internal::GetCapturedStderr(), HasSubstr(" works in "));
    EXPECT_EQ(sleeps, 2);
    EXPECT_TRUE(HoldsDirectory());
    const test::Replaced unlockable(&platform::FileOperations::LockDirectory,
                                    [](auto&&...) { return platform::error::notSupported; });
    WaitForDirectory();
    EXPECT_FALSE(HoldsDirectory() || WaitsForDirectory()) << "as the other tests expect it";
}

}  // namespace
}  // namespace kv

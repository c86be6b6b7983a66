// File helpers on the real file backend; failures are ordered through the seam.
#include <filesystem>
#include <string>

#include "foundation/file_utils.h"
#include "platform/files.h"
#include "tests/support/test_agent.h"
#include "tests/support/virtual_clock.h"

namespace kv {
namespace {

namespace fs = std::filesystem;
namespace error = platform::error;
using FileHelpers = test::TestAgent;

TEST_F(FileHelpers, DeletesATreeAndReportsWhatItCannotDelete) {
    EXPECT_EQ(DeleteDirectoryRecursively(u"tree"), 1);
    EXPECT_TRUE(Logged("\t DeleteDirectoryRecursively :: Invalid File Handle, path : tree \n"));
    for (const char* name : {"a.txt", "b.txt", "deep/er/c.txt"}) Write(bin / "tree" / name, "text");
    platform::FileOperations files = platform::Files();
    files.DeleteFileW = [real = files.DeleteFileW](std::u16string_view path) {
        return path.ends_with(u"a.txt") ? error::accessDenied : real(path);
    };
    {
        const platform::ScopedOperations scoped(files);
        EXPECT_EQ(DeleteDirectoryRecursively(u"tree\\"), 0);
    }
    EXPECT_TRUE(fs::exists(bin / "tree" / "a.txt"));
    EXPECT_FALSE(fs::exists(bin / "tree" / "b.txt") || fs::exists(bin / "tree" / "deep"));
    EXPECT_EQ(DeleteDirectoryRecursively(u"tree"), 1);
    EXPECT_FALSE(fs::exists(bin / "tree"));
}

TEST_F(FileHelpers, TellsFilesFromDirectoriesAndCountsZips) {
    for (const char* name : {"one.zip", "two.ZIP", "three.txt"}) Write(bin / "zipdata" / name, "");
    EXPECT_EQ(fileExists(u"zipdata\\one.zip"), 1);
    EXPECT_EQ(fileExists(u"zipdata\\none.zip"), 0);
    EXPECT_FALSE(Logged("Directory doesnot exists"));
    EXPECT_EQ(fileExists(u"zipdata"), 0);
    EXPECT_TRUE(Logged("\t fileExists() :: Directory doesnot exists\n"));
    EXPECT_TRUE(CheckFileExists(u"zipdata\\t*.txt"));
    EXPECT_FALSE(CheckFileExists(u"zipdata\\x*"));
    EXPECT_TRUE(Logged("CheckFileExists -> Invalid File Handle. 2 \n"));
    EXPECT_EQ(GetZipFileCount(u"zipdata\\*"), 2);
    EXPECT_EQ(GetZipFileCount(u"data\\*"), 0);
    EXPECT_TRUE(Logged("\t GetZipFileCount : Invalid File Handle. Error is 3"));
}

TEST_F(FileHelpers, AFileInUseCostsAQuarterSecond) {
    test::VirtualClock clock;
    platform::FileOperations files = platform::Files();
    platform::Error state = error::sharingViolation;
    files.GetFileUseState = [&state](std::u16string_view) { return state; };
    const platform::ScopedOperations scoped(files);
    EXPECT_EQ(IsFileisOpen(u"a.txt"), FileUse::inUse);
    state = error::accessDenied;
    EXPECT_EQ(IsFileisOpen(u"a.txt"), FileUse::unknown);
    EXPECT_EQ(clock.nowMilliseconds() - test::VirtualClock::startMilliseconds, 250);
    EXPECT_TRUE(Logged(" IsFileisOpen :: Error Occured [5]\n"));
}

TEST_F(FileHelpers, WritesAFileCompletelyOrNotAtAll) {
    using platform::FileOperations;
    void (*const faults[])(FileOperations&) = {
        [](FileOperations& files) { files.WriteFile = [](auto&&...) { return error::diskFull; }; },
        [](FileOperations& files) { files.FlushFileBuffers = [](auto&&...) { return error::diskFull; }; },
        [](FileOperations& files) { files.MoveFileExW = [](auto&&...) { return error::diskFull; }; },
    };
    Write(bin / "record.txt", "former");
    for (const auto fault : faults) {
        FileOperations files = platform::Files();
        fault(files);
        const platform::ScopedOperations scoped(files);
        EXPECT_EQ(WriteCompleteFile(u"record.txt", u"record.tmp", "new"), error::diskFull);
        EXPECT_EQ(Read(bin / "record.txt"), "former");
        EXPECT_FALSE(fs::exists(bin / "record.tmp"));
    }

    std::u16string text = u"\u00e4\U0001F600";
    for (int i = 0; i < 40000; ++i) text += static_cast<char16_t>(i);
    const std::string bytes = Utf16LittleEndianBytes(text);
    EXPECT_EQ(bytes.substr(0, 6), std::string("\xE4\x00\x3D\xD8\x00\xDE", 6));
    ASSERT_EQ(WriteCompleteFile(u"record.txt", u"record.tmp", bytes), error::success);
    EXPECT_FALSE(fs::exists(bin / "record.tmp"));
    std::string content = "before";
    ASSERT_EQ(ReadWholeFile(u"record.txt", content), error::success);
    EXPECT_TRUE(TextFromUtf16LittleEndian(content + "x") == text) << "an odd last byte is dropped";
    EXPECT_EQ(ReadWholeFile(u"missing.txt", content), error::fileNotFound);
    EXPECT_TRUE(content.empty());
}

}  // namespace
}  // namespace kv

// File helpers on the real file backend; failures come from the seam.

#include "foundation/file_utils.h"
#include "platform/files.h"
#include "tests/support/test_agent.h"

namespace kv {
namespace {

namespace fs = std::filesystem;
namespace error = platform::error;
using FileHelpers = test::TestAgent;

TEST_F(FileHelpers, LookAtFilesAndDeleteDirectories) {
    Write(bin / "tree" / "sub" / "a.zip", "");
    Write(bin / "tree" / "b.ZIP", "");
    EXPECT_EQ(GetZipFileCount(u"tree\\*"), 1);
    EXPECT_EQ(GetZipFileCount(u"missing\\*"), 0);
    EXPECT_TRUE(CheckFileExists(u"tree\\sub\\?.z*"));
    EXPECT_FALSE(CheckFileExists(u"tree\\missing"));
    EXPECT_TRUE(IsDirectory(u"tree") && !IsDirectory(u"tree\\b.ZIP"));
    EXPECT_EQ(fileExists(u"tree") + fileExists(u"tree\\missing"), 0);
    EXPECT_TRUE(MayExist(u"tree") && !MayExist(u"tree\\missing") && !MayExist(u"missing\\a"));
    {
        const platform::ScopedOperations scoped(Failing(&platform::FileOperations::DeleteFileW, error::accessDenied));
        EXPECT_EQ(DeleteDirectoryRecursively(u"tree"), 0);
    }
    EXPECT_EQ(DeleteDirectoryRecursively(u"tree"), 1);
    EXPECT_EQ(DeleteDirectoryRecursively(u"tree"), 1) << "it is already deleted";
    EXPECT_FALSE(fs::exists(bin / "tree"));
    for (const char16_t* name : {u"", u".", u"..", u"...", u"a.", u"a ", u"a/b", u"a\\b", u"a:b", u"a*", u"a\x1f"})
        EXPECT_FALSE(IsPlainFileName(name));
    EXPECT_TRUE(IsPlainFileName(u".a b.c"));
}

TEST_F(FileHelpers, WritesAFileCompletelyOrNotAtAll) {
    using platform::FileOperations;
    Write(bin / "record.txt", "former");
    for (const FileOperations& failing : {Failing(&FileOperations::WriteFile, error::diskFull),
                                          Failing(&FileOperations::FlushFileBuffers, error::diskFull),
                                          Failing(&FileOperations::MoveFileExW, error::diskFull)}) {
        const platform::ScopedOperations full(failing);
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
    EXPECT_EQ(ReadWholeFile(u"record.txt", content, bytes.size()), error::success);
    EXPECT_EQ(ReadWholeFile(u"record.txt", content, bytes.size() - 1), error::moreData);
    EXPECT_EQ(ReadWholeFile(u"missing.txt", content), error::fileNotFound);
    EXPECT_TRUE(content.empty());
}

TEST_F(FileHelpers, ReplacesAFileNeverThroughALink) {
    for (const char* name : {"status.json.tmp", "status.json"}) {
        Write(folder / "others", "theirs");
        fs::remove(bin / "status.json");
        std::error_code refused;  // not everyone may make such links on Windows
        fs::create_symlink(folder / "others", bin / name, refused);
        if (refused) fs::create_hard_link(folder / "others", bin / name);
        EXPECT_EQ(ReplaceFile(u"status.json", u"status.json.tmp", "ours", Readers::everyone), error::success) << name;
        EXPECT_EQ(Read(folder / "others") + Read(bin / "status.json"), "theirsours") << name;
        EXPECT_FALSE(fs::is_symlink(bin / "status.json")) << name;
    }
    Write(bin / "status.json.tmp" / "kept", "");
    EXPECT_NE(ReplaceFile(u"status.json", u"status.json.tmp", "new", Readers::everyone), error::success);
    EXPECT_EQ(Read(bin / "status.json"), "ours");
    EXPECT_TRUE(fs::exists(bin / "status.json.tmp" / "kept"));

    platform::FileOperations pipes = platform::Files();
    pipes.GetFileAttributesW = [](auto, std::uint32_t& attributes) {
        attributes = platform::file_attribute::device;
        return error::success;
    };
    const platform::ScopedOperations scoped(pipes);
    EXPECT_EQ(ReplaceFile(u"status.json", u"status.tmp", "new", Readers::everyone), error::alreadyExists);
    EXPECT_EQ(Read(bin / "status.json"), "ours");
}

TEST_F(FileHelpers, TakesUnknownRoomAsEnough) {
    const platform::ScopedOperations scoped(
        Failing(&platform::FileOperations::GetDiskFreeSpaceExW, error::notSupported));
    EXPECT_TRUE(HasRoomFor(u"conf", 6'000'000'000, u"plan.zip", "It stays"));
}

}  // namespace
}  // namespace kv

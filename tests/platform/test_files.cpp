#include <atomic>
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <thread>
#include <vector>

#include "platform/files.h"
#include "platform/process.h"
#include "platform/utf.h"
#include "tests/support/test_agent.h"

namespace platform::test {

namespace {

namespace fs = std::filesystem;

class FilesTest : public kv::test::TestAgent {
  protected:
    static Error Put(std::u16string_view path, std::string_view bytes, FileAccess access = FileAccess::append,
                     FileDisposition disposition = FileDisposition::openAlways) {
        FileHandle file = 0;
        const Error opened = Files().CreateFileW(path, access, FileShare::none, disposition, file);
        if (opened != 0) return opened;
        const Error written = Files().WriteFile(file, bytes.data(), bytes.size());
        const Error closed = Files().CloseHandle(file);
        return written != 0 ? written : closed;
    }
};

/// The names that a pattern finds, joined by blanks, with "/" behind directories; or the error's number.
std::string Found(std::u16string_view pattern) {
    FindData data;
    FindHandle search = 0;
    Error result = Files().FindFirstFileW(pattern, data, search);
    if (result != 0) return std::to_string(result);
    std::string names;
    for (; result == 0; result = Files().FindNextFileW(search, data)) {
        names += Utf8FromWide(data.fileName) + (data.isDirectory ? "/ " : " ");
    }
    Files().FindClose(search);
    EXPECT_EQ(result, error::noMoreFiles);
    return names;
}

TEST_F(FilesTest, SearchesMatchAndOrderAsWindowsDoes) {
    for (const char* name : {"agent.log", "agent1.log", "Agent10.LOG", "agent", "B.txt", "a.txt", "A.txt", "a.b.zip",
                             "\u00E4rger.zip", "a.zipped", "sub.d/x"}) {
        Write(fs::path("d") / name, "");
    }
    fs::create_directory_symlink(folder, "d/link");
    const std::string all =
        "./ ../ a.b.zip A.txt a.txt a.zipped agent agent.log agent1.log Agent10.LOG B.txt link sub.d/ \u00E4rger.zip ";
    const struct {
        const char* title;
        std::u16string_view pattern;
        std::string expected;
    } rows[] = {
        {"everything, directories first of all", u"d\\*", all},
        {"names without a dot count for *.*", u"d//\\*.*", all},
        {"an extension, in any case", u"d\\*.TXT", "A.txt a.txt B.txt "},
        {"a longer extension does not match", u"d\\*.zip", "a.b.zip \u00E4rger.zip "},
        {"a stem finds the bare name too", u"d\\agent*.*", "agent agent.log agent1.log Agent10.LOG "},
        {"the name may end before a dot and wildcards", u"d\\agent.?", "agent "},
        {"? may match nothing before a dot", u"d\\agent??.log", "agent.log agent1.log Agent10.LOG "},
        {"? matches one character and no dot", u"d\\a?b.zip", "2"},
        {"the last star is tried again", u"d\\*t*t", "A.txt a.txt B.txt "},
        {"case folding beyond ASCII", u"d\\\u00C4R*", "\u00E4rger.zip "},
        {"a plain name is looked up as it is", u"d\\a.txt", "a.txt "},
        {"and its case counts", u"d\\a.TXT", "2"},
        {"a directory by name", u"d\\sub.d", "sub.d/ "},
        {"an empty last part", u"d\\", "2"},
        {"no such directory", u"missing\\*", "3"},
        {"a file is no directory", u"d\\a.txt\\*", "3"},
    };
    for (const auto& row : rows) EXPECT_EQ(Found(row.pattern), row.expected) << row.title;
}

TEST_F(FilesTest, OpeningGivesSystemErrorNumbers) {
    Write("./old", "old text");
    fs::create_directory("dir");
    mkfifo("pipe", 0600);
    using enum FileDisposition;
    const struct {
        const char* title;
        std::u16string path;
        FileDisposition disposition;
        Error expected;
    } rows[] = {
        {"missing file", u"none", openExisting, error::fileNotFound},
        {"missing directory", u"none\\x", openExisting, error::pathNotFound},
        {"a file on the way", u"old\\x", openExisting, error::pathNotFound},
        {"a directory", u"dir", openExisting, error::accessDenied},
        {"a name too long", std::u16string(300, u'x'), openAlways, error::fileNameTooLong},
        {"a pipe without a writer does not wait", u"pipe", openExisting, error::success},
        {"openAlways keeps what is there", u"old", openAlways, error::success},
    };
    for (const auto& row : rows) {
        FileHandle file = 0;
        EXPECT_EQ(Files().CreateFileW(row.path, FileAccess::read, FileShare::none, row.disposition, file), row.expected)
            << row.title;
        EXPECT_EQ(file != 0, row.expected == error::success) << row.title;
        if (file != 0) Files().CloseHandle(file);
    }
    EXPECT_EQ(Read("old"), "old text");
    EXPECT_EQ(Put(u"old", "", FileAccess::write, createAlways), error::success);
    EXPECT_EQ(Read("old"), "");
}

TEST_F(FilesTest, AnOpenFileIsReadWrittenAndDescribed) {
    FileHandle file = 0;
    ASSERT_EQ(Files().CreateFileW(u"f", FileAccess::readWrite, FileShare::none, FileDisposition::createAlways, file),
              0U);
    EXPECT_EQ(Files().WriteFile(file, "0123456789", 10), error::success);
    EXPECT_EQ(Put(u"f", "ab"), error::success);
    EXPECT_EQ(Files().SetFilePointerEx(file, 8), error::success);
    std::string buffer(10, '\0');
    std::size_t read = 0;
    EXPECT_EQ(Files().ReadFile(file, buffer.data(), buffer.size(), read), error::success);
    EXPECT_EQ(buffer.substr(0, read), "89ab");
    EXPECT_EQ(Files().ReadFile(file, buffer.data(), buffer.size(), read), error::success);
    EXPECT_EQ(read, 0U);
    std::uint64_t offset = 0;
    EXPECT_EQ(Files().GetFilePointer(file, offset), error::success);
    EXPECT_EQ(offset, 12U);

    const FileInformation given{.attributes = file_attribute::readOnly,
                                .lastAccessTime = 126444736000000000,
                                .lastWriteTime = 133541031070000002};
    EXPECT_EQ(Files().SetFileInformationByHandle(file, given), error::success);
    struct stat status {};
    ASSERT_EQ(stat("f", &status), 0);
    EXPECT_EQ(status.st_mtim.tv_sec, 1709629507);
    EXPECT_EQ(status.st_mode & 07777, 0444U);
    FileInformation information;
    EXPECT_EQ(Files().GetFileInformationByHandle(file, information), error::success);
    EXPECT_EQ(information.size, 12U);
    EXPECT_EQ(information.attributes, file_attribute::readOnly | file_attribute::archive);
    fs::create_symlink("f", "link");
    std::uint32_t attributes = 0;
    EXPECT_EQ(Files().GetFileAttributesW(u"link", attributes), error::success);
    EXPECT_EQ(attributes, file_attribute::reparsePoint);
    EXPECT_EQ(Files().GetFileAttributesW(u".", attributes), error::success);
    EXPECT_EQ(attributes, file_attribute::directory);
    EXPECT_EQ(Files().GetFileAttributesW(u"none", attributes), error::fileNotFound);
    EXPECT_EQ(information.lastAccessTime, 126444736000000000U);
    EXPECT_EQ(information.lastWriteTime, 133541031070000002U);
    EXPECT_GT(information.creationTime, information.lastWriteTime);
    EXPECT_EQ(Files().CloseHandle(file), error::success);
    EXPECT_EQ(Files().CloseHandle(file), error::invalidHandle);
}

TEST_F(FilesTest, AFullDiskIsAnErrorAndNeverHalfACopy) {
    Write("./big", std::string(100'000, 'b'));
    Write("./target", "as it was");
    rlimit former{};  // no file grows beyond the limit: the next best thing to a full disk
    getrlimit(RLIMIT_FSIZE, &former);
    const rlimit limit{4096, former.rlim_max};
    setrlimit(RLIMIT_FSIZE, &limit);
    const Error written = Put(u"new", std::string(10'000, 'n'));
    const Error copied = Files().CopyFileW(u"big", u"target");
    setrlimit(RLIMIT_FSIZE, &former);
    EXPECT_EQ(written, error::diskFull);
    EXPECT_EQ(copied, error::diskFull);
    EXPECT_EQ(Read("target"), "as it was");
    EXPECT_EQ(Found(u"*"), "./ ../ big new target ");
    EXPECT_EQ(Files().CopyFileW(u"big", u"target"), error::success);
    EXPECT_EQ(Read("target"), Read("big"));
    EXPECT_EQ(fs::last_write_time("target"), fs::last_write_time("big"));
}

TEST_F(FilesTest, NamesAreMovedAndRemoved) {
    Write("./a", "a");
    Write("./b", "b");
    fs::create_directories("full/inner");
    const FileOperations& files = Files();
    EXPECT_EQ(files.MoveFileExW(u"a", u"b", false), error::alreadyExists);
    EXPECT_EQ(files.MoveFileExW(u"a", u"none\\b", true), error::pathNotFound);
    EXPECT_EQ(files.MoveFileExW(u"a", u"c", false), error::success);
    EXPECT_EQ(files.MoveFileExW(u"c", u"b", true), error::success);
    EXPECT_EQ(Read("b"), "a");
    EXPECT_EQ(files.DeleteFileW(u"full"), error::accessDenied);
    EXPECT_EQ(files.DeleteFileW(u"b"), error::success);
    EXPECT_EQ(files.RemoveDirectoryW(u"full\\"), error::directoryNotEmpty);
    EXPECT_EQ(files.RemoveDirectoryW(u"full\\inner"), error::success);
}

TEST_F(FilesTest, DirectoriesAndDrives) {
    const FileOperations& files = Files();
    EXPECT_EQ(files.wmkdir(u"one"), 0);
    EXPECT_EQ(files.wmkdir(u"one\\"), 17);
    EXPECT_EQ(files.wchdir(u"none"), 2);
    EXPECT_EQ(files.wchdir(u"one\\..\\one"), 0);
    std::u16string directory;
    EXPECT_EQ(files.wgetcwd(directory), 0);
    EXPECT_EQ(Utf8FromWide(directory), (bin / "one").string());
    EXPECT_TRUE(files.IsDirectory(u"..\\one"));

    fs::remove_all(folder / "state");  // it is made with the drive
    EXPECT_EQ(Put(u"C:\\test.txt", "note"), error::success);
    EXPECT_EQ(Read(folder / "state/drive_c/test.txt"), "note");
    EXPECT_EQ(Put(u"c:\\made\\..\\..\\..\\up.txt", "up"), error::success);
    EXPECT_EQ(Found(u"c:*.txt"), "test.txt up.txt ");
    EXPECT_EQ(Put(u"d:\\x", ""), error::pathNotFound);
}

TEST_F(FilesTest, AFileIsInUseWhileSomeoneHasItOpenForWriting) {
    EXPECT_EQ(Files().GetFileUseState(u"f"), error::fileNotFound);
    FileHandle file = 0;
    ASSERT_EQ(Files().CreateFileW(u"f", FileAccess::append, FileShare::none, FileDisposition::openAlways, file), 0U);
    EXPECT_EQ(Files().GetFileUseState(u"f"), error::sharingViolation);
    Files().CloseHandle(file);
    ASSERT_EQ(Files().CreateFileW(u"f", FileAccess::read, FileShare::read, FileDisposition::openExisting, file), 0U);
    EXPECT_EQ(Files().GetFileUseState(u"f"), error::success);
    Files().CloseHandle(file);

    mkfifo("go-on", 0600);
    ProcessHandle writer = 0;
    ASSERT_EQ(Processes().CreateProcessW(u"exec >>f; echo open >go-on; read end <go-on", u"", writer), error::success);
    EXPECT_EQ(Read("go-on"), "open\n");
    EXPECT_EQ(Files().GetFileUseState(u"f"), error::sharingViolation);
    Write("./go-on", "end\n");
    EXPECT_EQ(Processes().WaitForSingleObject(writer, 10'000), error::success);
    EXPECT_EQ(Files().GetFileUseState(u"f"), error::success);
    Processes().CloseProcess(writer);
}

TEST_F(FilesTest, AskingForTheUseStateDisturbsNoWriter) {
    std::atomic<bool> done{false};
    std::vector<std::jthread> askers(3);
    for (std::jthread& asker : askers) {
        asker = std::jthread([&] {
            while (!done) Files().GetFileUseState(u"f");
        });
    }
    for (int round = 0; round < 3000; ++round) EXPECT_EQ(Put(u"f", "x"), error::success);
    done = true;
    EXPECT_EQ(fs::file_size("f"), 3000U);
}

}  // namespace

}  // namespace platform::test

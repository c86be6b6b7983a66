#include <atomic>
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
    static Error Put(std::u16string_view path, std::string_view bytes) {
        FileHandle file = 0;
        const Error opened =
            Files().CreateFileW(path, FileAccess::append, FileShare::none, FileDisposition::openAlways, file);
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
        {"a longer extension does not match", u"d\\*.zip", "a.b.zip \u00E4rger.zip "},
        {"a stem finds the bare name too", u"d\\agent*.*", "agent agent.log agent1.log Agent10.LOG "},
        {"the name may end before a dot and wildcards", u"d\\agent.?", "agent "},
        {"? may match nothing before a dot", u"d\\agent??.log", "agent.log agent1.log Agent10.LOG "},
        {"? matches one character and no dot", u"d\\a?b.zip", "2"},
        {"the last star is tried again", u"d\\*t*t", "A.txt a.txt B.txt "},
        {"and its case counts", u"d\\a.TXT", "2"},
        {"no such directory", u"missing\\*", "3"},
        {"a file is no directory", u"d\\a.txt\\*", "3"},
    };
    for (const auto& row : rows) EXPECT_EQ(Found(row.pattern), row.expected) << row.title;
}

TEST_F(FilesTest, OpeningGivesSystemErrorNumbers) {
    mkfifo("pipe", 0600);
    const std::pair<std::u16string, Error> rows[] = {
        {u"none\\x", error::pathNotFound},
        {u".", error::accessDenied},
        {std::u16string(300, u'x'), error::fileNameTooLong},
        {u"pipe", error::success},  // without a wait for its writer
    };
    for (const auto& [path, expected] : rows) {
        FileHandle file = 0;
        EXPECT_EQ(Files().CreateFileW(path, FileAccess::read, FileShare::none, FileDisposition::openExisting, file),
                  expected);
        EXPECT_EQ(file != 0, expected == error::success) << Utf8FromWide(path);
        Files().CloseHandle(file);
    }
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

TEST_F(FilesTest, DirectoriesAndDrives) {
    const FileOperations& files = Files();
    EXPECT_EQ(files.wmkdir(u"one"), 0);
    EXPECT_EQ(files.wmkdir(u"one\\"), 17);
    Write("./a", "a");
    Write("./b", "b");
    EXPECT_EQ(files.MoveFileExW(u"a", u"b", false), error::alreadyExists);
    EXPECT_EQ(files.DeleteFileW(u"one"), error::accessDenied);
    EXPECT_EQ(files.wchdir(u"one\\..\\one"), 0);
    std::u16string directory;
    EXPECT_EQ(files.wgetcwd(directory), 0);
    EXPECT_EQ(Utf8FromWide(directory), (bin / "one").string());

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
    Write("./f", "");
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

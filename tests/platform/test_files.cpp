// The contract of the file operations.
#include <thread>
#include <tuple>
#include <utility>

#include "platform/process.h"
#include "tests/platform/files_test.h"
#include "tests/support/isolation.h"

namespace platform::test {

namespace {

namespace fs = std::filesystem;

TEST_F(FilesTest, SearchesMatchAndOrderLikeWindows) {
    for (const char* name : {"agent.log", "agent1.log", "Agent10.LOG", "agent", "B.txt", "a.txt", "a.b.zip", "a.zipped",
                             "a long name.zipped", "sub.d/x"}) {
        Write(fs::path("d") / name, "");
    }
    const std::string all =
        "./ ../ a long name.zipped a.b.zip a.txt a.zipped agent agent.log agent1.log Agent10.LOG B.txt sub.d/ ";
    const std::tuple<const char*, std::u16string_view, std::string> rows[] = {
        {"everything, the two dots first", u"d\\*", all},
        {"a longer extension does not match", u"d\\*.zip", "a.b.zip "},
        {"a stem also finds the bare name", u"d\\agent*.*", "agent agent.log agent1.log Agent10.LOG "},
        {"the name may end before a dot and wildcards", u"d\\agent.?", "agent "},
        {"? may match nothing before a dot", u"d\\agent??.log", "agent.log agent1.log Agent10.LOG "},
        {"? matches one character and no dot", u"d\\a?b.zip", "2"},
        {"the last star is tried again", u"d\\*t*t", "a.txt B.txt "},
        {"a missing directory", u"missing\\*", "3"},
        {"a file is not a directory", u"d\\a.txt\\*", "3"},
    };
    for (const auto& [title, pattern, expected] : rows) EXPECT_EQ(Found(pattern), expected) << title;
}

TEST_F(FilesTest, OpeningFailsWithTheSystemsErrors) {
    Write("./there", "1");
    using enum FileDisposition;
    const std::tuple<const char*, std::u16string_view, FileAccess, FileDisposition, Error> rows[] = {
        {"a missing directory", u"missing\\x", FileAccess::read, openExisting, error::pathNotFound},
        {"a missing file", u"missing", FileAccess::read, openExisting, error::fileNotFound},
        {"a directory", u".", FileAccess::read, openExisting, error::accessDenied},
        {"createNew of an existing file", u"there", FileAccess::write, createNew, error::alreadyExists},
        {"createNew of a new file", u"new", FileAccess::write, createNew, error::success},
        {"createAlways of an existing file", u"there", FileAccess::write, createAlways, error::success},
    };
    for (const auto& [title, path, access, disposition, expected] : rows) {
        FileHandle file = 0;
        EXPECT_EQ(Files().CreateFileW(path, access, FileShare::none, disposition, file), expected) << title;
        EXPECT_EQ(file != 0, expected == error::success) << title;
        EXPECT_TRUE(file == 0 || Files().CloseHandle(file) == error::success) << title;
    }
    EXPECT_EQ(Found(u"*"), "./ ../ new there ");
    EXPECT_EQ(Read("there"), "");
}

TEST_F(FilesTest, DirectoriesAreMadeAndEntered) {
    const FileOperations& files = Files();
    EXPECT_EQ(files.wmkdir(u"one"), 0);
    EXPECT_EQ(files.wmkdir(u"one\\"), directory_error::exists);
    for (const char* name : {"./a", "./b"}) Write(name, name);
    EXPECT_EQ(files.MoveFileExW(u"a", u"b", MoveTarget::mustBeNew), error::alreadyExists);
    EXPECT_EQ(files.DeleteFileW(u"one"), error::accessDenied);
    std::uint64_t available = 0;
    EXPECT_EQ(files.GetDiskFreeSpaceExW(u"one", available), error::success);
    EXPECT_GT(available, 0U);
    EXPECT_NE(files.GetDiskFreeSpaceExW(u"missing", available), error::success);
    EXPECT_EQ(files.wchdir(u"one\\..\\one"), 0);
    std::u16string directory;
    EXPECT_EQ(files.wgetcwd(directory), 0);
    EXPECT_EQ(Utf8FromWide(directory), (work / "one").string());
}

TEST_F(FilesTest, WritesTextWithTheSystemsLineEnds) {
    const FileHandle file = Open(u"f", FileAccess::append, FileDisposition::openAlways);
    const std::string longLine(4095, 'x');
    EXPECT_EQ(Files().WriteText(file, longLine + "\n\nend"), error::success);
    Files().CloseHandle(file);
    const std::string end(kv::test::fileLineEnd);
    EXPECT_EQ(Read("f"), longLine + end + end + "end");
}

TEST_F(FilesTest, AReadOnlyFileCanBeReplacedAndDeleted) {
    for (const char* name : {"./new", "./copied", "./locked"}) Write(name, name);
    const FileHandle file = Open(u"locked", FileAccess::readWrite);
    FileInformation information;
    EXPECT_EQ(Files().GetFileInformationByHandle(file, information), error::success);
    EXPECT_EQ(information.size, 8U);
    information.attributes |= file_attribute::readOnly;
    information.lastWriteTime = 130'000'000'000'000'000;
    EXPECT_EQ(Files().SetFileInformationByHandle(file, information), error::success);
    EXPECT_EQ(Files().GetFileInformationByHandle(file, information), error::success);
    EXPECT_EQ(information.lastWriteTime, 130'000'000'000'000'000U);
    Files().CloseHandle(file);
    std::uint32_t attributes = 0;
    EXPECT_EQ(Files().GetFileAttributesW(u"locked", attributes), error::success);
    EXPECT_NE(attributes & file_attribute::readOnly, 0U);

    EXPECT_EQ(Files().CopyFileW(u"locked", u"copied"), error::success);
    EXPECT_EQ(Files().CopyFileW(u"new", u"copied"), error::success);
    EXPECT_EQ(Files().MoveFileExW(u"new", u"locked", MoveTarget::isReplaced), error::success);
    EXPECT_EQ(Read("copied") + Read("locked"), "./new./new");
    EXPECT_EQ(Files().DeleteFileW(u"locked"), error::success);
    EXPECT_EQ(Found(u"*"), "./ ../ copied ");
}

TEST_F(FilesTest, AFileIsInUseWhileItIsOpenForWriting) {
    EXPECT_EQ(Files().GetFileUseState(u"f"), error::fileNotFound);
    Write("./f", "");
    const std::pair<FileAccess, Error> rows[] = {
        {FileAccess::read, error::success},
        {FileAccess::write, error::sharingViolation},
        {FileAccess::append, error::sharingViolation},
    };
    for (const auto& [access, expected] : rows) {
        const FileHandle file = Open(u"f", access);
        EXPECT_EQ(Files().GetFileUseState(u"f"), expected);
        FileHandle reader = 0;
        EXPECT_EQ(
            Files().CreateFileW(u"f", FileAccess::read, FileShare::readWrite, FileDisposition::openExisting, reader),
            error::success);
        Files().CloseHandle(reader);
        Files().CloseHandle(file);
    }
    EXPECT_EQ(Files().GetFileUseState(u"f"), error::success);
}

TEST_F(FilesTest, AskingForTheUseStateDisturbsNoWriter) {
    const std::jthread asker([](const std::stop_token& stop) {
        while (!stop.stop_requested()) Files().GetFileUseState(u"f");
    });
    for (int round = 0; round < 500; ++round) EXPECT_EQ(Put(u"f", "x"), error::success);
    EXPECT_EQ(fs::file_size("f"), 500U);
}

TEST_F(FilesTest, OneHandleAtATimeLocksADirectory) {
    DirectoryLock locks[2];
    std::vector<std::uint32_t> holders;
    const auto close = [](const DirectoryLock& lock) {
        for (const FileHandle handle : {lock.directory, lock.place})
            EXPECT_TRUE(handle == 0 || Files().CloseHandle(handle) == error::success);
    };
    const auto lockAgain = [&] { return Files().LockDirectory(u"p\\d", u"p", u"f", locks[1]); };
    const auto isFree = [&] {  // a container does not see the locks of others
        const Error result = Files().FindDirectoryLock(u"p\\d\\", u"p\\", u"f", holders);
        return result == error::fileNotFound || result == error::notSupported;
    };
    fs::create_directories("p/d");
    EXPECT_TRUE(isFree());
    EXPECT_EQ(Files().LockDirectory(u"p\\d\\", u"p\\", u"f", locks[0]), error::success);
    EXPECT_EQ(Files().FindDirectoryLock(u"p\\d\\", u"p\\", u"f", holders), error::success);
    for (const std::uint32_t holder : holders) EXPECT_EQ(holder, Processes().GetCurrentProcessId());
    EXPECT_EQ(lockAgain(), error::lockViolation);
    Write("p/d/f", "1");
    EXPECT_EQ(Read("p/d/f"), "1") << "others write and read it all the same";
    Files().DeleteFileW(u"p\\d\\f");
    EXPECT_EQ(lockAgain(), error::lockViolation) << "with or without the file";
    std::error_code inUse;  // where a locked file keeps its directory
    fs::remove_all("p/d", inUse);
    fs::create_directory("p/d");
    EXPECT_EQ(lockAgain(), error::lockViolation) << "another directory of that name";
    EXPECT_EQ(Files().FindDirectoryLock(u"p\\d", u"p", u"f", holders), error::success);
    close(locks[0]);
    EXPECT_EQ(lockAgain(), error::success);
    close(locks[1]);
    EXPECT_TRUE(isFree());
    EXPECT_NE(Files().LockDirectory(u"absent", u"p", u"f", locks[1]), error::success);
}

}  // namespace

}  // namespace platform::test

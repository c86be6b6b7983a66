// Files on Linux.
#include <sys/resource.h>
#include <sys/stat.h>

#include "platform/process.h"
#include "tests/platform/files_test.h"

namespace platform::test {

namespace {

namespace fs = std::filesystem;

TEST_F(FilesTest, CaseCountsInNamesAndLinksAreFiles) {
    for (const char* name : {"a.txt", "A.txt", "\u00E4rger.zip"}) Write(fs::path("d") / name, "");
    fs::create_directory_symlink(folder, "d/link");
    EXPECT_EQ(Found(u"d\\*"), "./ ../ A.txt a.txt link \u00E4rger.zip ");
    EXPECT_EQ(Found(u"d\\a.TXT"), "2");
}

TEST_F(FilesTest, NewFilesAreForOwnerAndGroupOnly) {
    const mode_t former = umask(0);
    Files().CloseHandle(Open(u"made", FileAccess::write, FileDisposition::createAlways));
    const FileHandle told = Open(u"told", FileAccess::write, FileDisposition::createNew);
    EXPECT_EQ(Files().LetEveryoneRead(told), error::success);
    Files().CloseHandle(told);
    Files().CopyFileW(u"made", u"copy");
    Files().wmkdir(u"dir");
    Files().wmkdir(u"c:\\dir");
    umask(former);
    for (const auto& [name, mode] : {std::pair{"made", 0640}, {"told", 0644}, {"copy", 0640}, {"dir", 0750}})
        EXPECT_EQ(fs::status(name).permissions(), fs::perms(mode)) << name;
    EXPECT_EQ(fs::status(Utf8FromWide(Files().NativePath(u"c:\\dir"))).permissions(), fs::perms(0750));
}

TEST_F(FilesTest, OpeningAPipeDoesNotWaitForItsWriter) {
    mkfifo("pipe", 0600);
    Files().CloseHandle(Open(u"pipe", FileAccess::read));
    EXPECT_EQ(Put(std::u16string(300, u'x'), ""), error::fileNameTooLong);
}

TEST_F(FilesTest, AFullDiskIsAnErrorAndLeavesNoHalfCopy) {
    Write("./big", std::string(100'000, 'b'));
    Write("./target", "as it was");
    Write("./.copy-target", std::string(200'000, 'k'));  // left by a killed copy
    rlimit former{};                                     // a limit on the size of files stands in for a full disk
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

TEST_F(FilesTest, DriveCIsInTheStateDirectory) {
    fs::remove_all(folder / "state");  // it is made with the drive
    EXPECT_EQ(Put(u"C:\\test.txt", "note"), error::success);
    EXPECT_EQ(Read(folder / "state/drive_c/test.txt"), "note");
    EXPECT_EQ(Put(u"c:\\made\\..\\..\\..\\up.txt", "up"), error::success);
    EXPECT_EQ(Found(u"c:*.txt"), "test.txt up.txt ");
    EXPECT_EQ(Put(u"d:\\x", ""), error::pathNotFound);
}

TEST_F(FilesTest, AFileIsInUseWhileAnotherProcessHasItOpenForWriting) {
    Write("./f", "");
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

}  // namespace

}  // namespace platform::test

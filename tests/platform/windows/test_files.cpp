// Files on Windows.
#include <thread>
#include <windows.h>

#include "platform/clock.h"
#include "tests/platform/files_test.h"

namespace platform::test {

namespace {

TEST_F(FilesTest, DevicesAreRefused) {
    FileHandle file = 0;
    for (const FileDisposition disposition : {FileDisposition::openExisting, FileDisposition::createAlways}) {
        EXPECT_EQ(Files().CreateFileW(u"nul", FileAccess::write, FileShare::none, disposition, file),
                  error::invalidName);
        EXPECT_EQ(file, 0U);
    }
}

TEST_F(FilesTest, AHiddenFileIsReplacedOrKeepsItsProtection) {
    for (const DWORD protection : {DWORD{FILE_ATTRIBUTE_HIDDEN}, DWORD{FILE_ATTRIBUTE_SYSTEM}}) {
        for (const char* name : {"./new", "./copied", "./moved"}) Write(name, name);
        for (const wchar_t* name : {L"copied", L"moved"}) ::SetFileAttributesW(name, protection);
        EXPECT_EQ(Files().MoveFileExW(u"missing", u"moved", MoveTarget::isReplaced), error::fileNotFound);
        EXPECT_EQ(::GetFileAttributesW(L"moved") & protection, protection);
        EXPECT_EQ(Files().CopyFileW(u"new", u"copied"), error::success);
        EXPECT_EQ(Files().MoveFileExW(u"new", u"moved", MoveTarget::isReplaced), error::success);
        EXPECT_EQ(Read("copied") + Read("moved"), "./new./new");
    }
}

TEST_F(FilesTest, AnOpenFileCanBeRenamedAndDeleted) {
    Write("./first", "1");
    const FileHandle file = Open(u"first", FileAccess::append);
    EXPECT_EQ(Files().MoveFileExW(u"first", u"second", MoveTarget::mustBeNew), error::success);
    EXPECT_EQ(Files().WriteFile(file, "2", 1), error::success);
    EXPECT_EQ(Files().DeleteFileW(u"second"), error::success);
    Files().CloseHandle(file);
    EXPECT_EQ(Found(u"*"), "./ ../ ");
}

TEST_F(FilesTest, WaitsForAProgramThatReadsForAMoment) {
    Write("./target", "old");
    for (const bool targetExists : {true, false}) {
        Write("./new", "new");
        const HANDLE look = ::CreateFileW(L"new", GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING, 0, nullptr);
        const std::jthread end([look] {
            Clock().Sleep(50);
            ::CloseHandle(look);
        });
        EXPECT_EQ(Files().MoveFileExW(u"new", u"target", MoveTarget::isReplaced), error::success) << targetExists;
        EXPECT_EQ(Read("target"), "new");
        EXPECT_EQ(Files().DeleteFileW(u"target"), error::success);
    }
}

}  // namespace

}  // namespace platform::test

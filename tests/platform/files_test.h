// Short forms of file operations.
#pragma once

#include <gtest/gtest.h>
#include <string>
#include <string_view>

#include "platform/files.h"
#include "platform/utf.h"
#include "tests/support/test_folder.h"

namespace platform::test {

class FilesTest : public kv::test::TestFolder {
  protected:
    /// Opens a file; 0, and the test has failed, if that is refused.
    static FileHandle Open(std::u16string_view path, FileAccess access,
                           FileDisposition disposition = FileDisposition::openExisting) {
        FileHandle file = 0;
        EXPECT_EQ(Files().CreateFileW(path, access, FileShare::read, disposition, file), error::success);
        return file;
    }

    /// Appends to a file.
    static Error Put(std::u16string_view path, std::string_view bytes) {
        FileHandle file = 0;
        const Error opened =
            Files().CreateFileW(path, FileAccess::append, FileShare::none, FileDisposition::openAlways, file);
        if (opened != 0) return opened;
        const Error written = Files().WriteFile(file, bytes.data(), bytes.size());
        const Error closed = Files().CloseHandle(file);
        return written != 0 ? written : closed;
    }

    /// The names that a pattern finds, with "/" after directories and a blank after each; or the error number.
    static std::string Found(std::u16string_view pattern) {
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
};

}  // namespace platform::test

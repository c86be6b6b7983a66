// A fixture: a temporary folder and the operations of the system.
#pragma once

#include <filesystem>
#include <gtest/gtest.h>
#include <string>
#include <string_view>
#include <vector>

#include "platform/files.h"
#include "tests/support/replaced.h"

namespace kv::test {

/// Makes a temporary folder with an empty working directory and a state directory, gives this process its own registry
/// there, installs the operations that need no library, and changes to the working directory. Undoes all of it at the
/// end.
class TestFolder : public ::testing::Test {
  public:
    /// Also makes the folders above the file.
    static void Write(const std::filesystem::path& path, std::string_view bytes);
    static std::string ReadText(const std::filesystem::path& path);  // with "\n" for each line end
    static std::string Read(const std::filesystem::path& path);
    /// Sorted file names.
    static std::vector<std::string> FilesIn(const std::filesystem::path& directory);

  protected:
    /// work: a path below the folder.
    explicit TestFolder(const std::filesystem::path& work = "work");
    ~TestFolder() override;

    std::filesystem::path folder;
    std::filesystem::path work;  // the working directory

    /// The current file operations, one of which fails.
    template <class Operation>
    static platform::FileOperations Failing(Operation platform::FileOperations::*operation, platform::Error error) {
        return With(operation, [error](auto&&...) { return error; });
    }

  private:
    std::filesystem::path formerDirectory_;
};

}  // namespace kv::test

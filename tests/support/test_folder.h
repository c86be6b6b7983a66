// A folder of its own for each test, with the system's operations installed on it, as a fixture.
#pragma once

#include <filesystem>
#include <gtest/gtest.h>
#include <string>
#include <string_view>
#include <vector>

#include "platform/files.h"

namespace kv::test {

/// Makes a temporary folder with an empty working directory and a state directory, gives this process a registry of its
/// own there, installs the operations that need no library, and changes to the working directory. All of it is undone
/// and removed at the end.
class TestFolder : public ::testing::Test {
  public:
    /// Makes the folders above the file, too.
    static void Write(const std::filesystem::path& path, std::string_view bytes);
    static std::string ReadText(const std::filesystem::path& path);  // with "\n" as its line ends
    static std::string Read(const std::filesystem::path& path);
    /// Sorted file names.
    static std::vector<std::string> FilesIn(const std::filesystem::path& directory);

  protected:
    /// work: below the folder.
    explicit TestFolder(const std::filesystem::path& work = "work");
    ~TestFolder() override;

    std::filesystem::path folder;
    std::filesystem::path work;  // the working directory

    /// The current file operations, of which one fails.
    template <class Operation>
    static platform::FileOperations Failing(Operation platform::FileOperations::*operation, platform::Error error) {
        platform::FileOperations files = platform::Files();
        files.*operation = [error](auto&&...) { return error; };
        return files;
    }

  private:
    std::filesystem::path formerDirectory_;
};

}  // namespace kv::test

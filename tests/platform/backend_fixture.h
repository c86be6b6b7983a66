// The real backend on a folder of its own, as a fixture.
#pragma once

#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <sstream>
#include <string>
#include <string_view>
#include <sys/resource.h>

#include "platform/backend.h"
#include "platform/files.h"

namespace platform::test {

/// Installs the backend with its state in <folder>/state (which does not exist yet) and changes to <folder>.
class BackendTest : public ::testing::Test {
  protected:
    BackendTest() : formerDirectory_(std::filesystem::current_path()) {
        std::string pattern = (std::filesystem::temp_directory_path() / "kv-platform-XXXXXX").string();
        folder = mkdtemp(pattern.data());
        setenv("KVAGENT_STATE_DIR", (folder / "state").c_str(), 1);
        InstallBackend();
        std::filesystem::current_path(folder);
    }

    ~BackendTest() override {
        std::filesystem::current_path(formerDirectory_);
        std::filesystem::remove_all(folder);
    }

    std::filesystem::path folder;

    static void Put(const std::filesystem::path& path, std::string_view bytes) {
        std::ofstream(path, std::ios::binary) << bytes;
    }

    static std::string Get(const std::filesystem::path& path) {
        std::ostringstream bytes;
        bytes << std::ifstream(path, std::ios::binary).rdbuf();
        return bytes.str();
    }

  private:
    std::filesystem::path formerDirectory_;
};

/// No file grows beyond the size while this lives: the next best thing to a full disk.
class FileSizeLimit {
  public:
    explicit FileSizeLimit(rlim_t bytes) {
        getrlimit(RLIMIT_FSIZE, &former_);
        const rlimit limit{bytes, former_.rlim_max};
        setrlimit(RLIMIT_FSIZE, &limit);
    }
    ~FileSizeLimit() { setrlimit(RLIMIT_FSIZE, &former_); }
    FileSizeLimit(const FileSizeLimit&) = delete;
    FileSizeLimit& operator=(const FileSizeLimit&) = delete;

  private:
    rlimit former_{};
};

}  // namespace platform::test

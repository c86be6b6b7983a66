// Another implementation of the format: libzip on Linux. On Windows the agent's reader and writer check each other.
#pragma once

#include <algorithm>
#include <filesystem>
#include <gtest/gtest.h>
#include <map>
#include <random>
#include <string>

#include "foundation/open_file.h"

namespace kv::test {

/// A file that is open from its beginning to its end.
struct OpenedFile : OpenFile {
    OpenedFile(std::u16string_view path, platform::FileAccess access,
               platform::FileDisposition disposition = platform::FileDisposition::openExisting) {
        EXPECT_EQ(Open(path, access, platform::FileShare::read, disposition), platform::error::success);
    }
};

using Files = std::map<std::string, std::string>;  // contents by path

/// Bytes that deflate cannot make smaller, the same in every run.
inline std::string Noise(std::size_t size) {
    std::string bytes(size, '\0');
    std::generate(bytes.begin(), bytes.end(), std::mt19937(1));
    return bytes;
}

/// Every file of an archive. Throws or fails the test if the archive is faulty.
Files UnpackedByPeer(const std::string& bytes);

/// Makes an archive; its bytes.
std::string PackedByPeer(const Files& contents, const std::filesystem::path& path);

}  // namespace kv::test

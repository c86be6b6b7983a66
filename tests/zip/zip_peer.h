// Another implementation of the format, which shows whether the agent's own keeps to it: libzip on Linux. The tests on
// Windows have none; there the agent's reader and writer check each other.
#pragma once

#include <algorithm>
#include <filesystem>
#include <map>
#include <random>
#include <string>

namespace kv::test {

using Files = std::map<std::string, std::string>;  // contents by path

/// Bytes that deflate cannot make smaller, the same in every run.
inline std::string Noise(std::size_t size) {
    std::string bytes(size, '\0');
    std::generate(bytes.begin(), bytes.end(), std::mt19937(1));
    return bytes;
}

/// Every file of an archive. Throws, or fails the test, when the archive is bad.
Files UnpackedByPeer(const std::string& bytes);

/// Makes an archive, and gives its bytes.
std::string PackedByPeer(const Files& contents, const std::filesystem::path& path);

}  // namespace kv::test

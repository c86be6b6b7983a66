// Another implementation of the format: libzip on Linux. On Windows the agent's reader and writer check each other.
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

/// Every file of an archive. Throws or fails the test if the archive is faulty.
Files UnpackedByPeer(const std::string& bytes);

/// Makes an archive; its bytes.
std::string PackedByPeer(const Files& contents, const std::filesystem::path& path);

}  // namespace kv::test

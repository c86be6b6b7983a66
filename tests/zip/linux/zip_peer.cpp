#include "tests/zip/zip_peer.h"

#include <zip.h>

#include "lab/store/archive.h"
#include "tests/support/test_agent.h"

namespace kv::test {

/// ReadArchive checks the local headers against the directory.
Files UnpackedByPeer(const std::string& bytes) {
    Files files;
    lab::ReadArchive(bytes, [&](const std::string& name, std::string_view content) { files[name] = content; });
    return files;
}

std::string PackedByPeer(const Files& contents, const std::filesystem::path& path) {
    zip_t* archive = zip_open(path.c_str(), ZIP_CREATE | ZIP_TRUNCATE, nullptr);
    for (const auto& [name, content] : contents) {
        zip_source_t* source = zip_source_buffer(archive, content.data(), content.size(), 0);
        zip_file_add(archive, name.c_str(), source, 0);
    }
    EXPECT_EQ(zip_close(archive), 0);
    return TestAgent::Read(path);
}

}  // namespace kv::test

#include "tests/zip/zip_peer.h"

#include "platform/utf.h"
#include "tests/support/test_agent.h"
#include "zip/zip_reader.h"
#include "zip/zip_writer.h"

namespace kv::test {

Files UnpackedByPeer(const std::string& bytes) {
    Files files;
    ZipHandle zip = OpenZipMemory(bytes.data(), bytes.size(), nullptr);
    ZipItem all;
    EXPECT_EQ(GetZipItem(zip, -1, all), zip_result::ok);
    for (std::int32_t index = 0; index < all.index; ++index) {
        ZipItem item;
        if (GetZipItem(zip, index, item) != zip_result::ok) item.name = u"a name that is too long";
        std::string& content = files[platform::Utf8FromWide(item.name)];
        content.resize(item.uncompressedSize);
        if (content.empty()) continue;
        EXPECT_EQ(UnzipItemToMemory(zip, index, content.data(), content.size()), zip_result::ok) << item.index;
    }
    CloseUnzip(zip);
    return files;
}

std::string PackedByPeer(const Files& contents, const std::filesystem::path& path) {
    ZipHandle zip = CreateZip(path.u16string(), nullptr);
    for (const auto& [name, content] : contents)
        EXPECT_EQ(AddMemoryToZip(zip, platform::WideFromUtf8(name), content.data(), content.size()), zip_result::ok);
    EXPECT_EQ(CloseZip(zip), zip_result::ok);
    return TestAgent::Read(path);
}

}  // namespace kv::test

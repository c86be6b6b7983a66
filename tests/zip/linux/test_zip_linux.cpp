// Zips on Linux: links, and encryption checked by Debian's unzip.
#include <cstdlib>

#include "platform/utf.h"
#include "tests/zip/zip_reading.h"
#include "zip/zip_writer.h"

namespace kv::test {

TEST_F(ZipReading, FollowsNoLinkOutOfTheBase) {
    const fs::path outside = folder / "outside";
    Write(outside / "file", "kept");
    fs::create_directory_symlink(outside, download);  // the base itself may be a link
    const fs::path inside = outside / "in";
    fs::create_directory(inside);
    fs::create_directory_symlink(outside, inside / "link");
    fs::create_symlink(outside / "file", inside / "filelink");
    fs::create_symlink(outside / "new", inside / "dangling");
    std::vector<Built> entries{Built("in/link/d/", "")};
    for (const char* name : {"in/link/x", "in\\link\\file"}) entries.emplace_back(name, "bad");
    for (const char* name : {"in/filelink", "in/dangling"}) entries.emplace_back(name, "good");
    Write(bin / "a.zip", Archive(entries));
    UnzipFiles(u"a.zip", u"..\\conf\\download");
    EXPECT_EQ(Tree(outside), (Files{{"file", "kept"}, {"in/dangling", "good"}, {"in/filelink", "good"}}));
    EXPECT_FALSE(fs::exists(outside / "d") || fs::is_symlink(inside / "filelink"));
    for (std::size_t i = 0; i < entries.size(); ++i)
        EXPECT_EQ(Logged("Not able to unpack item [" + std::to_string(i) + "] ["), entries[i].data != "good") << i;
}

TEST_F(ZipReading, OpensEncryptedItemsWithTheirPasswordOnly) {
    contents["stored.gz"] = "stored";
    ZipHandle own = CreateZip(u"own.zip", "secret");
    for (const auto& [name, content] : contents)
        EXPECT_EQ(AddMemoryToZip(own, platform::WideFromUtf8(name), content.data(), content.size()), zip_result::ok);
    EXPECT_EQ(CloseZip(own), zip_result::ok);
    EXPECT_EQ(std::system("unzip -tqq -P secret own.zip"), 0);
    const std::string bytes = Read(bin / "own.zip");
    for (const std::string password : {"secret", "Secret"}) {
        ZipHandle zip = OpenBytes(bytes, password.c_str());
        std::int32_t index = 0;
        for (const auto& [name, content] : contents) {
            std::string found;
            const bool right = ReadItem(zip, index++, found) == zip_result::ok && found == content;
            EXPECT_EQ(right, password == "secret") << name;
        }
        CloseUnzip(zip);
    }
    UnzipFiles(u"own.zip", u"..\\conf\\download");
    EXPECT_TRUE(Logged("[d/e/small] of [own.zip]. Error is [0x1000] [unknown zip result code]"));
}

}  // namespace kv::test

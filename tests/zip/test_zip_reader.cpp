#include <algorithm>
#include <gtest/gtest.h>
#include <map>
#include <optional>
#include <random>
#include <string>
#include <vector>
#include <zip.h>
#include <zlib.h>

#include "foundation/open_file.h"
#include "platform/files.h"
#include "platform/utf.h"
#include "tests/support/test_agent.h"
#include "tests/support/virtual_clock.h"
#include "zip/zip_item_name.h"
#include "zip/zip_reader.h"
#include "zip/zip_writer.h"

namespace kv::test {

namespace {

namespace fs = std::filesystem;

using Files = std::map<std::string, std::string>;  // contents by path

constexpr std::uint64_t fileTimeOf1970 = 116444736000000000;
constexpr std::uint64_t second = 10000000;  // in file times

std::string Number(std::uint64_t number, std::size_t bytes) {
    std::string text;
    for (; bytes > 0; --bytes, number >>= 8) text += static_cast<char>(number & 0xFF);
    return text;
}

std::string Noise(std::size_t size) {
    std::string bytes(size, '\0');
    std::generate(bytes.begin(), bytes.end(), std::mt19937(1));
    return bytes;
}

std::string TimeField(std::uint64_t size, std::uint64_t flags, const std::string& times) {
    return "UT" + Number(size, 2) + Number(flags, 1) + times;
}

/// An entry for an archive built byte by byte, good as long as nothing is changed.
struct Built {
    explicit Built(std::string itsName, const std::string& content = "content")
        : name(itsName), localName(itsName), data(content), size(content.size()) {
        crc = crc32(0, reinterpret_cast<const Bytef*>(content.data()), static_cast<uInt>(content.size()));
    }
    std::string name, localName, data, localExtra, centralExtra;
    std::uint64_t size, crc, method = 0, flags = 0, madeBy = 0, attributes = 0;
    std::optional<std::uint64_t> localOffset;  // of a header that is there already
    std::uint64_t dosTime = 0x5C6548AE;        // 2026-03-05 09:05:28
};

std::string CommonFields(const Built& entry, const std::string& extra) {
    return Number(entry.flags, 2) + Number(entry.method, 2) + Number(entry.dosTime, 4) + Number(entry.crc, 4) +
           Number(entry.data.size(), 4) + Number(entry.size, 4) + Number(entry.name.size(), 2) +
           Number(extra.size(), 2);
}

std::string LocalRecord(const Built& entry) {
    return "PK\3\4" + Number(20, 2) + CommonFields(entry, entry.localExtra) + entry.localName + entry.localExtra +
           entry.data;
}

/// `between` stands before the end record.
std::string Archive(const std::vector<Built>& entries, const std::string& between = "",
                    const std::string& disks = Number(0, 4)) {
    std::string bytes, directory;
    for (const Built& entry : entries) {
        const std::size_t own = bytes.size();
        if (!entry.localOffset) bytes += LocalRecord(entry);
        directory += "PK\1\2" + Number(entry.madeBy, 2) + Number(20, 2) + CommonFields(entry, entry.centralExtra) +
                     std::string(6, '\0') + Number(entry.attributes, 4) + Number(entry.localOffset.value_or(own), 4) +
                     entry.name + entry.centralExtra;
    }
    return bytes + directory + between + "PK\5\6" + disks + Number(entries.size(), 2) + Number(entries.size(), 2) +
           Number(directory.size(), 4) + Number(bytes.size(), 4) + Number(0, 2);
}

std::string Deflated(const std::string& content) {
    std::string bytes(compressBound(content.size()), '\0');
    uLongf size = bytes.size();
    compress(reinterpret_cast<Bytef*>(bytes.data()), &size, reinterpret_cast<const Bytef*>(content.data()),
             content.size());
    return bytes.substr(2, size - 6);  // without zlib's own header and checksum
}

ZipHandle OpenBytes(const std::string& bytes, const char* password = nullptr) {
    return OpenZipMemory(bytes.data(), bytes.size(), password);
}

ZipItem Described(const Built& entry) {
    const std::string bytes = Archive({entry});
    ZipHandle zip = OpenBytes(bytes);
    ZipItem item;
    EXPECT_EQ(GetZipItem(zip, 0, item), zip_result::ok) << entry.name.substr(0, 40);
    CloseUnzip(zip);
    return item;
}

/// Unpacks an item to memory, in blocks of some size.
ZipResult ReadItem(ZipHandle zip, std::int32_t index, std::string& content, std::size_t blockSize = 1000) {
    ZipItem item;
    ZipResult result = GetZipItem(zip, index, item);
    if (result != zip_result::ok) return result;
    content.clear();
    do {
        std::string block(std::min<std::size_t>(blockSize, item.uncompressedSize - content.size()), '\0');
        result = UnzipItemToMemory(zip, index, block.data(), block.size());
        GetZipItem(zip, 0, item = {}), GetZipItem(zip, index, item);  // a look at another does not disturb
        content += block;
    } while (result == zip_result::moreData);
    return result;
}

std::string Packed(const Files& contents, const char* password, const fs::path& path) {
    zip_t* archive = zip_open(path.c_str(), ZIP_CREATE | ZIP_TRUNCATE, nullptr);
    for (const auto& [name, content] : contents) {
        zip_source_t* source = zip_source_buffer(archive, content.data(), content.size(), 0);
        const auto index = static_cast<zip_uint64_t>(zip_file_add(archive, name.c_str(), source, 0));
        if (password != nullptr) zip_file_set_encryption(archive, index, ZIP_EM_TRAD_PKWARE, password);
    }
    EXPECT_EQ(zip_close(archive), 0);
    return TestAgent::Read(path);
}

}  // namespace

class ZipReading : public TestAgent {
  protected:
    /// Everything below a directory, by path.
    static Files Tree(const fs::path& directory) {
        Files files;
        for (const auto& entry : fs::recursive_directory_iterator(directory)) {
            if (entry.is_regular_file()) files[entry.path().lexically_relative(directory)] = Read(entry.path());
        }
        return files;
    }

    Files contents{{"empty", ""},
                   {"d/e/small", "small"},
                   {"d/\xC3\xBC.txt", std::string(200000, 'x')},
                   {"d/noise", Noise(200000)}};
    fs::path download = conf / "download";
};

TEST_F(ZipReading, NamesAreCleansedExactlySo) {
    // clang-format off
    const struct {
        std::string name;
        std::u16string cleansed;
    } rows[] = {
        {"C:\\conf\\x.txt", u"conf\\x.txt"}, {"a/../b.txt", u"b.txt"},  {"\\\\..\\\\x", u"x"},
        {"../x", u"../x"},                  {"\\..\\x", u"..\\x"},   {"/../x", u"../x"},
        {"a:b:c", u"c"},                    {"::x", u"x"},            {"/\\//C:/x", u"x"},
        {"a\\..\\b", u"b"},                 {"a\\../b", u"b"},       {"a/..\\b", u"b"},
        {"a/../b/../c:/x", u"x"},           {"a/b..", u"a/b.."},      {"a/..", u"a/.."},
        {"/\\..\\x", u"x"},                {"\\/../x", u"../x"},       {"\\C:/../x", u"../x"},
        {"a/..\\../b", u"b"},              {std::string(65534, '/') + "x", u"x"},
        {"C:", u""},                        {"\xC3\xBC\xFF", u"\u00FC\uFFFD"},
        {std::string("cut\0off", 7), u"cut"}, {std::string(259, 'n'), std::u16string(259, u'n')}};
    // clang-format on
    for (const auto& row : rows) EXPECT_EQ(Described(Built(row.name)).name, row.cleansed) << row.name.substr(0, 40);
}

TEST_F(ZipReading, AttributesAndTimesAreTheItems) {
    const VirtualClock clock;  // local time is UTC
    const std::string times = Number(1000, 4) + Number(0xFFFFFFFE, 4) + Number(3000, 4);
    const std::uint64_t dos = fileTimeOf1970 + 1772701528 * second, last = fileTimeOf1970 + 1000 * second,
                        access = fileTimeOf1970 + 0xFFFFFFFE * second, creation = fileTimeOf1970 + 3000 * second;
    const struct {
        const char* title;
        std::uint64_t madeBy, external;
        std::string localExtra, centralExtra;
        std::uint32_t attributes;
        std::uint64_t mtime, atime, ctime;
    } rows[] = {{"DOS, no times", 0x0014, 0xFFFFFFFF, "", "", 0x37, dos, dos, dos},
                {"NTFS, all times", 0x0B17, 0x81800021, TimeField(13, 7, times), "", 0x21, last, access, creation},
                {"Unix, writable; central time", 3 << 8, 0x81A40001, "", TimeField(5, 7, Number(1000, 4)), 0x20, last,
                 dos, dos},
                {"Unix, read-only; field not as long as its flags", 3 << 8, 0x81240000,
                 TimeField(9, 7, times.substr(0, 8)), "", 0x21, last, access, dos},
                {"Unix directory; times two and three behind another field", 3 << 8, 0x41ED0000,
                 "xx" + Number(1, 3) + TimeField(9, 6, times.substr(4)), "", 0x30, dos, access, creation},
                {"field cut by the end", 14 << 8, 2, "UT\xFF", "UT", 2, dos, dos, dos}};
    for (const auto& row : rows) {
        Built entry("n");
        entry.madeBy = row.madeBy, entry.attributes = row.external;
        entry.localExtra = row.localExtra, entry.centralExtra = row.centralExtra;
        const ZipItem item = Described(entry);
        EXPECT_EQ(item.attr, row.attributes) << row.title;
        EXPECT_EQ((std::vector{item.mtime, item.atime, item.ctime}), (std::vector{row.mtime, row.atime, row.ctime}))
            << row.title;
    }
}

TEST_F(ZipReading, WhatAnIndependentWriterPackedComesOutInEveryForm) {
    const std::string bytes = Packed(contents, nullptr, bin / "a.zip");
    UnzipFiles(u"a.zip", u"..\\conf\\download");
    EXPECT_EQ(Tree(download), contents);

    OpenFile file;
    file.Open(u"a.zip", platform::FileAccess::read, platform::FileShare::read, platform::FileDisposition::openExisting);
    const std::string selfExtracting = std::string(5000, 'P') + bytes + "behind it";
    for (ZipHandle zip : {OpenZipHandle(file.handle, nullptr), OpenBytes(selfExtracting)}) {
        for (const auto& [name, content] : contents) {
            ZipItem item;
            std::int32_t index = 7;
            std::string found;
            EXPECT_EQ(FindZipItem(zip, platform::WideFromUtf8(name), false, index, item), zip_result::ok) << name;
            for (const std::size_t size : {999UL, 250000UL})
                EXPECT_TRUE(ReadItem(zip, index, found, size) == zip_result::ok && found == content) << name;
            OpenFile out;
            out.Open(u"out", platform::FileAccess::write, platform::FileShare::none,
                     platform::FileDisposition::createAlways);
            EXPECT_EQ(UnzipItemToHandle(zip, index, out.handle), zip_result::ok) << name;
            EXPECT_EQ(Read(bin / "out"), content) << name;
        }
        CloseUnzip(zip);
    }
}

TEST_F(ZipReading, OurOwnArchivesComeBackWithAttributesAndTimes) {
    Write(bin / "one", "one");
    fs::last_write_time(bin / "one", fs::last_write_time(bin / "one") - std::chrono::hours(50000));
    fs::permissions(bin / "one", fs::perms::owner_read);
    ZipHandle zip = CreateZip(u"a.zip", nullptr);
    AddFileToZip(zip, u"d\\one", u"one");
    AddFolderToZip(zip, u"e\\f");
    CloseZip(zip);
    UnzipFiles(u"a.zip", u"..\\conf\\download");
    EXPECT_EQ(Tree(download), (Files{{"d/one", "one"}}));
    EXPECT_TRUE(fs::is_directory(download / "e/f"));
    EXPECT_EQ(std::chrono::floor<std::chrono::seconds>(fs::last_write_time(bin / "one")),
              fs::last_write_time(download / "d/one"));
    EXPECT_EQ(fs::status(download / "d/one").permissions() & fs::perms::owner_write, fs::perms::none);

    zip = OpenZip(u"a.zip", nullptr);  // an absolute path of the caller's own, also over a read-only file
    const std::u16string target = platform::WideFromUtf8((folder / "x/y").string());
    for (int i = 0; i < 2; ++i) EXPECT_EQ(UnzipItem(zip, 0, target), zip_result::ok);
    EXPECT_EQ(Read(folder / "x/y"), "one");
    CloseUnzip(zip);
}

TEST_F(ZipReading, NothingIsWrittenOutsideTheBase) {
    const fs::path outside = folder / "outside";
    Write(outside / "file", "kept");
    fs::create_directory_symlink(outside, download);  // the base itself may be a link
    const fs::path inside = outside / "in";
    fs::create_directories(inside / "directory/full");
    fs::create_directory_symlink(outside, inside / "link");
    fs::create_symlink(outside / "file", inside / "filelink");
    fs::create_symlink(outside / "new", inside / "dangling");
    Write(inside / "plain", "plain");
    std::vector<Built> entries;
    for (const char* name : {"../x", "..\\x", "a/../../x", ".. /x", ".../x", "in/link/x", "in\\link\\file",
                             "in/link/d/", "in/plain/x", "in/directory", "", "a/.."}) {
        entries.emplace_back(name, *name != '\0' && std::string(name).back() == '/' ? "" : "bad");
    }
    for (const char* name : {"in/filelink", "in/dangling", "/abs/x", "C:y", "in//z"})
        entries.emplace_back(name, "good");
    Write(bin / "a.zip", Archive(entries));
    UnzipFiles(u"a.zip", u"..\\conf\\download");
    EXPECT_EQ(Tree(folder / "outside"), (Files{{"abs/x", "good"},
                                               {"file", "kept"},
                                               {"in/dangling", "good"},
                                               {"in/filelink", "good"},
                                               {"in/plain", "plain"},
                                               {"in/z", "good"},
                                               {"y", "good"}}));
    EXPECT_FALSE(fs::exists(conf / "x") || fs::exists(outside / "d") || fs::is_symlink(inside / "filelink"));
    for (std::size_t i = 0; i < entries.size(); ++i)
        EXPECT_EQ(Logged("Not able to unpack item [" + std::to_string(i) + "] ["), entries[i].data != "good") << i;
}

TEST_F(ZipReading, NoFlippedBitGivesWrongContent) {
    const std::string content(300, 'a');
    Built deflated("d", content);
    deflated.data = Deflated(content), deflated.method = 8;
    std::string bytes = Archive({Built("stored", content), deflated});
    int stillGood = 0;
    for (std::size_t bit = 0; bit < bytes.size() * 8; ++bit) {
        const auto flip = [&] { bytes[bit / 8] = static_cast<char>(bytes[bit / 8] ^ 1 << bit % 8); };
        flip();
        ZipHandle zip = OpenBytes(bytes);
        std::string found;
        int good = 0;
        while (good < 2 && ReadItem(zip, good, found) == zip_result::ok) {
            EXPECT_EQ(found, content) << bit;
            ++good;
        }
        stillGood += good == 2;
        CloseUnzip(zip);
        flip();
    }
    EXPECT_LT(stillGood, 390);  // the bits of versions, times, attributes and flags without a meaning here
}

TEST_F(ZipReading, EveryLieIsRefusedAndLeavesNothing) {
    const auto with = [](std::uint64_t Built::*field, std::uint64_t value) {
        Built entry("n");
        entry.*field = value;
        return entry;
    };
    const auto bomb = [&](std::uint64_t size) {
        Built entry = with(&Built::size, size);
        entry.data = Deflated(std::string(10000000, '\0')), entry.method = 8;
        return entry;
    };
    Built twoNames("n"), nested("m"), same("n"), outside("n");
    twoNames.localName = "m";
    nested.localOffset = 31;
    same.localOffset = 0;
    outside.localOffset = 0xFFFFFFF0;
    using namespace zip_result;
    const struct {
        const char* title;
        std::vector<Built> entries;
        ZipResult result;
        const char* logged;
        std::string between = "", disks = Number(0, 4);
    } rows[] = {
        {"bomb, declared empty", {bomb(0)}, flateFailed, "[0x5000000] [Zip-bug: an internal error during flation]"},
        {"bomb, declared small", {bomb(100000)}, flateFailed, ""},
        {"4 GB declared", {with(&Built::size, 0xFFFFFFFE)}, flateFailed, "An item of 4294967294 bytes is more than"},
        {"a sum beyond the bound",
         {with(&Built::size, 0x1FF00000), with(&Built::size, 0x200000)},
         flateFailed,
         "An item of 2097152 bytes is more than the archive may still unpack to: 1044480"},
        {"64-bit sizes", {with(&Built::size, 0xFFFFFFFF)}, corrupt, "64-bit sizes"},
        {"shorter than its size", {with(&Built::size, 8)}, flateFailed, ""},
        {"longer than its size", {with(&Built::size, 6)}, flateFailed, ""},
        {"another CRC", {with(&Built::crc, 1)}, flateFailed, ""},
        {"two names", {twoNames}, corrupt, "[Zipfile is corrupt"},
        {"header outside", {outside}, corrupt, ""},
        {"an item within an item", {Built("n", LocalRecord(Built("m"))), nested}, corrupt, ""},
        {"one header for two", {Built("n"), same}, corrupt, ""},
        {"name too long", {Built(std::string(260, 'n'))}, corrupt, ""},
        {"method 12", {with(&Built::method, 12)}, flateFailed, "method 12 is not known"},
        {"strong encryption", {with(&Built::flags, 0x41)}, flateFailed, "another kind than the traditional one"},
        {"no room for encryption", {with(&Built::flags, 1)}, corrupt, ""},
        {"64-bit records", {Built("n")}, corrupt, "64-bit records are not read", "PK\6\7" + Number(0, 16)},
        {"second disk", {Built("n")}, corrupt, "several disks are not read", "", Number(1, 4)},
        {"cut directory", {Built("n")}, corrupt, "The central directory is damaged", "between"}};
    for (const auto& row : rows) {
        std::vector<Built> entries = row.entries;
        entries.emplace_back("z");
        const std::string bytes = Archive(entries, row.between, row.disks);
        ZipHandle zip = OpenBytes(bytes);
        EXPECT_EQ(zip != nullptr ? UnzipItem(zip, 0, u"n") : LastZipReaderResult(), row.result) << row.title;
        EXPECT_FALSE(fs::exists(bin / "n")) << row.title;

        fs::remove_all(download);
        Write(bin / "a.zip", bytes);
        UnzipFiles(u"a.zip", u"..\\conf\\download");
        EXPECT_EQ(fs::exists(download / "z"), zip != nullptr) << row.title;  // the others go on
        EXPECT_FALSE(fs::exists(download / "n")) << row.title;
        EXPECT_TRUE(Logged(row.logged)) << row.title;
        CloseUnzip(zip);
    }
}

TEST_F(ZipReading, EncryptedItemsNeedTheirPassword) {
    const std::string bytes = Packed(contents, "secret", bin / "a.zip");
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
    UnzipFiles(u"a.zip", u"..\\conf\\download");
    EXPECT_TRUE(Logged("[d/e/small] of [a.zip]. Error is [0x1000] [unknown zip result code]"));
}

TEST_F(ZipReading, AFileThatCannotBeWrittenIsDeletedAndAnArchiveThatCannotBeReadIsSaid) {
    Packed(contents, nullptr, bin / "a.zip");
    using Operations = platform::FileOperations;
    const struct {
        const char* title;
        Operations files;
        ZipResult result;
        const char* logged;
    } rows[] = {{"disk full", Failing(&Operations::WriteFile, platform::error::diskFull), zip_result::writeFailed, ""},
                {"close", Failing(&Operations::CloseHandle, platform::error::writeFault), zip_result::writeFailed, ""},
                {"read", Failing(&Operations::ReadFile, platform::error::readFault), zip_result::readFailed, ""},
                {"create", Failing(&Operations::CreateFileW, platform::error::accessDenied), zip_result::noFile,
                 "Error code : 5"},
                {"times", Failing(&Operations::SetFileInformationByHandle, platform::error::accessDenied),
                 zip_result::ok, "new] cannot be set"}};
    for (const auto& row : rows) {
        ZipHandle zip = OpenZip(u"a.zip", nullptr);
        {
            const platform::ScopedOperations<Operations> failing(row.files);
            EXPECT_EQ(UnzipItem(zip, 1, u"new"), row.result) << row.title;
        }
        EXPECT_EQ(fs::exists(bin / "new"), row.result == zip_result::ok) << row.title;
        EXPECT_TRUE(Logged(row.logged)) << row.title;
        CloseUnzip(zip);
    }
}

TEST_F(ZipReading, FaultyCallsAreAnswered) {
    ZipHandleRecord writer{ZipKind::writer, nullptr};
    ZipItem item;
    std::int32_t index = 3;
    EXPECT_EQ(OpenZip(u"missing", nullptr), nullptr);
    EXPECT_EQ(LastZipReaderResult(), zip_result::noFile);
    EXPECT_EQ(UnzipItem(nullptr, 0, u"n"), zip_result::badArguments);
    EXPECT_EQ(CloseUnzip(&writer), zip_result::wrongKind);
    char16_t text[100];
    EXPECT_EQ(FormatZipMessage(1, text, 8), 42U);
    EXPECT_EQ(std::u16string(text), u"Caller:");

    const std::string bytes = Archive({Built("N")});
    ZipHandle zip = OpenBytes(bytes);
    EXPECT_EQ(FindZipItem(zip, u"n", false, index, item), zip_result::notFound);
    EXPECT_EQ(std::pair(index, item.index), std::pair(-1, -1));
    EXPECT_EQ(FindZipItem(zip, u"n", true, index, item), zip_result::ok);
    EXPECT_EQ(GetZipItem(zip, -1, item), zip_result::ok);
    EXPECT_TRUE(item.index == 1 && item.name.empty());
    EXPECT_EQ(GetZipItem(zip, 1, item), zip_result::badArguments);
    EXPECT_EQ(UnzipItem(zip, 1, u"n"), zip_result::ok);  // does nothing
    EXPECT_EQ(UnzipItem(zip, -1, u"n"), zip_result::badArguments);
    EXPECT_EQ(SetUnzipBaseDir(zip, u""), zip_result::badArguments);
    EXPECT_FALSE(fs::exists(bin / "n"));
    CloseUnzip(zip);

    const platform::ScopedOperations<platform::FileOperations> pipe(
        Failing(&platform::FileOperations::GetFilePointer, platform::error::invalidFunction));
    EXPECT_EQ(OpenZipHandle(5, nullptr), nullptr);
    EXPECT_EQ(LastZipReaderResult(), zip_result::unseekable);
}

}  // namespace kv::test

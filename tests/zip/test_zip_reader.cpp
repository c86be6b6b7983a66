// Reading zips: names, attributes, every source, lies and faults.
#include <fmt/format.h>
#include <gmock/gmock.h>

#include "platform/files.h"
#include "platform/utf.h"
#include "tests/support/virtual_clock.h"
#include "tests/zip/zip_reading.h"
#include "zip/zip_writer.h"

namespace kv::test {

TEST_F(ZipReading, CleansesNamesOfItems) {
    // clang-format off
    const std::pair<std::string, std::u16string> rows[] = {
        {"C:\\conf\\x.txt", u"conf\\x.txt"}, {"../x", u"../x"},         {"\\\\..\\\\x", u"x"},
        {"a:b:c", u"c"},                    {"::x", u"x"},            {"/\\//C:/x", u"x"},
        {"a\\..\\b", u"b"},                 {"a\\../b", u"b"},       {"a/..\\b", u"b"},
        {"a/../b/../c:/x", u"x"},           {"a/b..", u"a/b.."},      {"a/..", u"a/.."},
        {"/\\..\\x", u"x"},                {"\\/../x", u"../x"},       {"\\C:/../x", u"../x"},
        {"a/..\\../b", u"b"},              {std::string(65534, '/') + "x", u"x"},
        {"C:", u""},                        {"\xC3\xBC\xFF", u"\u00FC\uFFFD"},
        {std::string("cut\0off", 7), u"cut"}, {std::string(259, 'n'), std::u16string(259, u'n')}};
    // clang-format on
    for (const auto& [name, cleansed] : rows) EXPECT_EQ(Described(Built(name)).name, cleansed) << name.substr(0, 40);
}

TEST_F(ZipReading, TakesAttributesAndTimesOfTheItem) {
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
                {"Unix, read-only; field shorter than its flags say", 3 << 8, 0x81240000,
                 TimeField(9, 7, times.substr(0, 8)), "", 0x21, last, access, dos},
                {"Unix directory; second and third time after another field", 3 << 8, 0x41ED0000,
                 "xx" + Number(1, 3) + TimeField(9, 6, times.substr(4)), "", 0x30, dos, access, creation}};
    for (const auto& row : rows) {
        Built entry("n");
        entry.madeBy = row.madeBy;
        entry.attributes = row.external;
        entry.localExtra = row.localExtra;
        entry.centralExtra = row.centralExtra;
        const ZipItem item = Described(entry);
        EXPECT_EQ(item.attr, row.attributes) << row.title;
        EXPECT_EQ((std::vector{item.mtime, item.atime, item.ctime}), (std::vector{row.mtime, row.atime, row.ctime}))
            << row.title;
    }
}

TEST_F(ZipReading, UnpacksAnotherWritersZipFromEverySource) {
    const std::string bytes = PackedByPeer(contents, bin / "a.zip");
    UnzipFiles(u"a.zip", u"..\\conf\\download");
    EXPECT_EQ(Tree(download), contents);

    const OpenedFile file(u"a.zip", platform::FileAccess::read);
    const std::string selfExtracting = std::string(5000, 'P') + bytes + "behind it";
    for (ZipHandle zip : {OpenZipHandle(file.handle, nullptr), OpenBytes(selfExtracting)}) {
        EXPECT_TRUE(zip != nullptr && !IsZipHandleForWriting(zip));
        for (const auto& [name, content] : contents) {
            ZipItem item;
            std::int32_t index = 7;
            std::string found;
            EXPECT_EQ(FindZipItem(zip, platform::WideFromUtf8(name), false, index, item), zip_result::ok) << name;
            for (const std::size_t size : {999UL, 250000UL})
                EXPECT_TRUE(ReadItem(zip, index, found, size) == zip_result::ok && found == content) << name;
            const OpenedFile out(u"out", platform::FileAccess::write, platform::FileDisposition::createAlways);
            EXPECT_EQ(UnzipItemToHandle(zip, index, out.handle), zip_result::ok) << name;
            EXPECT_EQ(Read(bin / "out"), content) << name;
        }
        CloseUnzip(zip);
    }
}

TEST_F(ZipReading, UnpacksItsOwnZipsWithAttributesAndTimes) {
    Write(bin / "one", "one");
    fs::last_write_time(bin / "one", fs::last_write_time(bin / "one") - std::chrono::hours(50000));
    fs::permissions(bin / "one", fs::perms::owner_read);
    ZipHandle zip = CreateZip(u"a.zip", nullptr);
    EXPECT_TRUE(IsZipHandleForWriting(zip) && !IsZipHandleForWriting(nullptr));
    EXPECT_EQ(AddFileToZip(zip, u"d\\one", u"one") + AddFolderToZip(zip, u"e\\f"), zip_result::ok);
    EXPECT_EQ(CloseZip(zip), zip_result::ok);
    UnzipFiles(u"a.zip", u"..\\conf\\download");
    EXPECT_EQ(Tree(download), (Files{{"d/one", "one"}}));
    EXPECT_TRUE(fs::is_directory(download / "e/f"));
    EXPECT_EQ(std::chrono::floor<std::chrono::seconds>(fs::last_write_time(bin / "one")),
              fs::last_write_time(download / "d/one"));
    EXPECT_EQ(fs::status(download / "d/one").permissions() & fs::perms::owner_write, fs::perms::none);
    for (const fs::path& file : {bin / "one", download / "d/one"})
        fs::permissions(file, fs::perms::owner_all);  // so that they can be removed
}

TEST_F(ZipReading, WritesNothingOutsideTheBase) {
    const char* const refused[] = {"../x",       "..\\x", "a/../../x", ".. /x",       ".../x",
                                   "in/plain/x", "",      "a/..",      "in/directory"};
    std::vector<Built> entries;
    for (const char* name : refused) entries.emplace_back(name, "bad");
    for (const char* name : {"/abs/x", "C:y", "in//z", "\\\\server\\share"}) entries.emplace_back(name, "good");
    Write(download / "in/plain", "plain");
    fs::create_directories(download / "in/directory/full");
    Write(bin / "a.zip", Archive(entries));
    UnzipFiles(u"a.zip", u"..\\conf\\download");
    EXPECT_EQ(Tree(conf), (Files{{"download/abs/x", "good"},
                                 {"download/in/plain", "plain"},
                                 {"download/in/z", "good"},
                                 {"download/server/share", "good"},
                                 {"download/y", "good"}}));
    for (std::size_t i = 0; i < entries.size(); ++i)
        EXPECT_EQ(Logged("Not able to unpack item [" + std::to_string(i) + "] ["), entries[i].data != "good") << i;
}

TEST_F(ZipReading, RefusesEveryLieAndLeavesNoFile) {
    const auto with = [](std::uint64_t Built::*field, std::uint64_t value) {
        Built entry("n");
        entry.*field = value;
        return entry;
    };
    const auto bomb = [&](std::uint64_t size) {
        Built entry = with(&Built::size, size);
        entry.data = Deflated(std::string(10000000, '\0'));
        entry.method = 8;
        return entry;
    };
    const Built large = with(&Built::size, 0x1FF00000), more = with(&Built::size, 0x200000);
    Built twoNames("n"), outside("n");
    twoNames.localName = "m";
    outside.localOffset = 0xFFFFFFF0;
    using namespace zip_result;
    const struct {
        const char* title;
        std::vector<Built> entries;
        ZipResult result;
        const char* logged = "";
    } rows[] = {
        {"a bomb declared as empty", {bomb(0)}, flateFailed, "[Zip-bug: an internal error during flation]"},
        {"a bomb declared as small", {bomb(100000)}, flateFailed},
        {"4 GB declared", {with(&Built::size, 0xFFFFFFFE)}, badArguments, "An item of 4294967294 bytes is more than"},
        {"a sum beyond the bound", {large, more}, flateFailed, "item of 2097152 bytes is more than the archive may "},
        {"64-bit sizes", {with(&Built::size, 0xFFFFFFFF)}, badArguments, "64-bit sizes"},
        {"shorter than its size", {with(&Built::size, 8)}, flateFailed},
        {"longer than its size", {with(&Built::size, 6)}, flateFailed},
        {"another CRC", {with(&Built::crc, 1)}, flateFailed},
        {"two names", {twoNames}, corrupt, "[Zipfile is corrupt"},
        {"header outside", {outside}, corrupt},
        {"name too long", {Built(std::string(260, 'n'))}, corrupt},
        {"method 12", {with(&Built::method, 12)}, flateFailed, "method 12 is not known"},
        {"strong encryption", {with(&Built::flags, 0x41)}, flateFailed, "another kind than the traditional one"},
        {"no room for encryption", {with(&Built::flags, 1)}, corrupt}};
    for (const auto& row : rows) {
        std::vector<Built> entries = row.entries;
        entries.emplace_back("z");
        fs::remove_all(download);
        Write(bin / "a.zip", Archive(entries));
        const std::size_t before = LogText().size();
        UnzipFiles(u"a.zip", u"..\\conf\\download");
        EXPECT_THAT(FilesIn(download), testing::ElementsAre("z")) << row.title << ": the next item follows";
        EXPECT_GE(TimesLogged(fmt::format("Error is [{:#x}]", row.result), before), 1) << row.title;
        EXPECT_GE(TimesLogged(row.logged, before), 1) << row.title;
    }
}

TEST_F(ZipReading, LeavesNoHalfFileAfterAFailure) {
    PackedByPeer(contents, bin / "a.zip");
    using Operations = platform::FileOperations;
    const std::tuple<const char*, Operations, ZipResult, const char*> rows[] = {
        {"a full disk", Failing(&Operations::WriteFile, platform::error::diskFull), zip_result::writeFailed, ""},
        {"a read fault", Failing(&Operations::ReadFile, platform::error::readFault), zip_result::readFailed, ""},
        {"a refused file", Failing(&Operations::CreateFileW, platform::error::accessDenied), zip_result::noFile,
         "Error code : 5"}};
    for (const auto& [title, files, result, logged] : rows) {
        ZipHandle zip = OpenZip(u"a.zip", nullptr);
        {
            const platform::ScopedOperations<Operations> failing(files);
            EXPECT_EQ(UnzipItem(zip, 1, u"new"), result) << title;
        }
        EXPECT_FALSE(fs::exists(bin / "new")) << title;
        EXPECT_TRUE(Logged(logged)) << title;
        CloseUnzip(zip);
    }
}

TEST_F(ZipReading, AnswersFaultyCalls) {
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
    EXPECT_EQ(OpenBytes(bytes.substr(0, bytes.size() - 1)), nullptr) << "cut short";
    EXPECT_EQ(LastZipReaderResult(), zip_result::corrupt);
    ZipHandle zip = OpenBytes(bytes);
    EXPECT_EQ(FindZipItem(zip, u"n", false, index, item), zip_result::notFound);
    EXPECT_EQ(std::pair(index, item.index), std::pair(-1, -1));
    EXPECT_EQ(FindZipItem(zip, u"n", true, index, item), zip_result::ok);
    EXPECT_EQ(GetZipItem(zip, -1, item), zip_result::ok);
    EXPECT_TRUE(item.index == 1 && item.name.empty());
    EXPECT_EQ(GetZipItem(zip, 1, item), zip_result::badArguments);
    EXPECT_EQ(UnzipItem(zip, 1, u"n"), zip_result::ok);  // does nothing
    EXPECT_EQ(SetUnzipBaseDir(zip, u""), zip_result::badArguments);
    EXPECT_FALSE(fs::exists(bin / "n"));
    CloseUnzip(zip);

    const platform::ScopedOperations<platform::FileOperations> pipe(
        Failing(&platform::FileOperations::GetFilePointer, platform::error::invalidFunction));
    EXPECT_EQ(OpenZipHandle(5, nullptr), nullptr);
    EXPECT_EQ(LastZipReaderResult(), zip_result::unseekable);
}

}  // namespace kv::test

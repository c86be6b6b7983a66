// Writing zips: the bytes of the format, what another reader finds, and faults.
#include "platform/files.h"
#include "platform/utf.h"
#include "tests/support/snmp_devices.h"
#include "tests/support/test_agent.h"
#include "tests/support/virtual_clock.h"
#include "tests/zip/zip_peer.h"
#include "zip/zip_writer.h"

namespace kv::test {

namespace {

using FileOverride = platform::ScopedOperations<platform::FileOperations>;

constexpr std::uint64_t fileTimeOf2026 = 116444736000000000 + 17727015070000000;  // 2026-03-05 09:05:07 UTC

}  // namespace

class Zip : public TestAgent {
  protected:
    /// The files that another reader finds in the archive.
    Files ReadArchive() const { return UnpackedByPeer(Read(path)); }

    /// Packs one file and expects another reader to find it.
    void PackOne(const std::string& content, std::u16string_view name = u"name") {
        Write(bin / "one", content);
        ZipHandle zip = CreateZip(u"a.zip", nullptr);
        EXPECT_EQ(AddFileToZip(zip, name, u"one"), zip_result::ok);
        EXPECT_EQ(CloseZip(zip), zip_result::ok);
        const auto files = ReadArchive();
        EXPECT_TRUE(files.size() == 1 && files.begin()->second == content);
    }

    /// The attributes in the only central header.
    std::string PackedAttributes() const {
        const std::string bytes = Read(path);
        return bytes.substr(bytes.rfind("PK\1\2") + 38, 4);
    }

    /// The current operations, with the same facts about every file.
    static platform::FileOperations WithInformation(const platform::FileInformation& facts) {
        return With(&platform::FileOperations::GetFileInformationByHandle, [facts](auto, auto& out) {
            out = facts;
            return platform::error::success;
        });
    }

    std::filesystem::path path = bin / "a.zip";
};

TEST_F(Zip, WritesEveryByteOfTheFormat) {
    Write(bin / "two", "hi");
    const FileOverride facts(WithInformation({.attributes = 0x20,
                                              .creationTime = fileTimeOf2026 + 20000000,
                                              .lastAccessTime = fileTimeOf2026 + 10000000,
                                              .lastWriteTime = fileTimeOf2026,
                                              .size = 2}));
    const VirtualClock clock;  // at the same moment
    ZipHandle zip = CreateZip(u"a.zip", nullptr);
    EXPECT_EQ(AddFileToZip(zip, u"d\\a.gz", u"two"), zip_result::ok);
    EXPECT_EQ(AddMemoryToZip(zip, u"m", "", 0), zip_result::ok);
    EXPECT_EQ(AddFolderToZip(zip, u"d"), zip_result::ok);
    EXPECT_EQ(CloseZip(zip), zip_result::ok);

    const std::string expected =
        // a stored file
        "50 4b 03 04 14 00 00 00 00 00 ae 48 65 5c ac 2a 93 d8 02 00 00 00 02 00 00 00 06 00 11 00 "
        "64 2f 61 2e 67 7a 55 54 0d 00 07 43 47 a9 69 44 47 a9 69 45 47 a9 69 68 69 "
        // an empty deflated one
        "50 4b 03 04 14 00 00 00 08 00 ae 48 65 5c 00 00 00 00 02 00 00 00 00 00 00 00 01 00 11 00 "
        "6d 55 54 0d 00 07 43 47 a9 69 43 47 a9 69 43 47 a9 69 03 00 "
        // a folder
        "50 4b 03 04 14 00 00 00 00 00 ae 48 65 5c 00 00 00 00 00 00 00 00 00 00 00 00 02 00 11 00 "
        "64 2f 55 54 0d 00 07 43 47 a9 69 43 47 a9 69 43 47 a9 69 "
        // central headers
        "50 4b 01 02 17 0b 14 00 00 00 00 00 ae 48 65 5c ac 2a 93 d8 02 00 00 00 02 00 00 00 06 00 09 00 00 00 00 00 "
        "00 00 20 00 80 81 00 00 00 00 64 2f 61 2e 67 7a 55 54 05 00 07 43 47 a9 69 "
        "50 4b 01 02 17 0b 14 00 00 00 08 00 ae 48 65 5c 00 00 00 00 02 00 00 00 00 00 00 00 01 00 09 00 00 00 00 00 "
        "00 00 00 00 00 80 37 00 00 00 6d 55 54 05 00 07 43 47 a9 69 "
        "50 4b 01 02 17 0b 14 00 00 00 00 00 ae 48 65 5c 00 00 00 00 00 00 00 00 00 00 00 00 02 00 09 00 00 00 00 00 "
        "00 00 10 00 c0 41 69 00 00 00 64 2f 55 54 05 00 07 43 47 a9 69 "
        // end record
        "50 4b 05 06 00 00 00 00 03 00 03 00 ae 00 00 00 9a 00 00 00 00 00";
    EXPECT_EQ(Read(path), FromHex(expected));
}

TEST_F(Zip, AnotherReaderFindsWhatWasPacked) {
    Files contents{{"data/empty.txt", ""}, {"data/\xC3\xBC \xE2\x82\xAC.txt", "x"}};
    for (const std::size_t size : {16383UL, 16384UL, 16385UL, 65536UL, 300000UL}) {
        contents["data/" + std::to_string(size)] = Noise(size);  // sizes around that of the buffer
        contents["data/" + std::to_string(size) + ".zoo"] = Noise(size);
        contents["data/" + std::to_string(size) + ".txt"] = std::string(size * 10, 'a');
    }
    ZipHandle zip = CreateZip(u"a.zip", nullptr);
    for (const auto& [name, content] : contents) {
        std::u16string source = platform::WideFromUtf8(name);
        Write(bin / source, content);
        source[4] = u'\\';
        EXPECT_EQ(AddFileToZip(zip, source, source), zip_result::ok) << name;
    }
    EXPECT_EQ(CloseZip(zip), zip_result::ok);

    EXPECT_TRUE(ReadArchive() == contents);
}

TEST_F(Zip, TheExtensionDecidesTheMethod) {
    for (const std::u16string name : {u"s.Z", u"s.zip", u"s.zoo", u"s.arc", u"s.lzh", u"s.arj", u"s.gz", u"s.tgz",
                                      u"s.GZ", u"r.gz.txt", u"point", u"r.gz\\name", u"a.zipped", u"a."}) {
        PackOne("text", name);
        EXPECT_EQ(Read(path).at(8), name.starts_with(u"s.") ? 0 : 8) << platform::Utf8FromWide(name);
    }
}

TEST_F(Zip, TakesTheAttributesOfTheFile) {
    std::string program(60, '\0');
    program.replace(0, 2, "\xAD\x54");
    program[36] = 4;
    program.replace(4, 4, std::string("MZ\0\0", 4));
    const std::tuple<const char*, std::uint32_t, std::string, const char*> rows[] = {
        {"read-only, hidden, system; other bits dropped", 0x887, "text", "07 00 00 81"},
        {"program", 0x20, program, "20 00 c0 81"},
        {"program of 40 bytes", 0x20, program.substr(0, 40), "20 00 80 81"}};
    for (const auto& [title, attributes, content, expected] : rows) {
        const FileOverride facts(WithInformation({.attributes = attributes, .size = content.size()}));
        PackOne(content);
        EXPECT_EQ(PackedAttributes(), FromHex(expected)) << title;
    }
}

TEST_F(Zip, WritesDescriptorsToAnOutputThatCannotSeek) {
    const FileOverride unseekable(Failing(&platform::FileOperations::GetFilePointer, platform::error::invalidFunction));
    PackOne("hi");
    EXPECT_EQ(PackedAttributes(), FromHex("00 00 00 80"));
    const std::string bytes = Read(path);
    EXPECT_EQ(bytes[6], 8);
    EXPECT_EQ(bytes.substr(bytes.rfind("PK\1\2") - 16, 16), FromHex("504b0708 ac2a93d8 04000000 02000000"));

    ZipHandle zip = CreateZip(u"a.zip", nullptr);
    EXPECT_EQ(AddFileToZip(zip, u"stored.gz", u"one"), zip_result::changedMind);
    EXPECT_EQ(CloseZip(zip), zip_result::ok);
}

TEST_F(Zip, FaultyCallsLeaveTheArchiveSound) {
    Write(bin / "one", "one");
    ZipHandleRecord reader{ZipKind::reader, nullptr};
    EXPECT_EQ(CreateZip(u"a.zip", ""), nullptr);
    char text[100];
    EXPECT_EQ(FormatZipMessage(1, text, 8), 24U);  // the last result, cut to the buffer
    EXPECT_STREQ(text, "Caller:");
    EXPECT_EQ(AddFileToZip(nullptr, u"n", u"one"), zip_result::badArguments);
    EXPECT_EQ(CloseZip(&reader), zip_result::wrongKind);

    ZipHandle zip = CreateZip(u"a.zip", nullptr);
    EXPECT_EQ(AddFileToZip(zip, std::u16string(261, u'n'), u"one"), zip_result::badArguments);
    EXPECT_EQ(AddFileToZip(zip, u"n", u"missing"), zip_result::noFile);
    {
        const FileOverride unreadable(Failing(&platform::FileOperations::ReadFile, platform::error::readFault));
        EXPECT_EQ(AddFileToZip(zip, u"n", u"one"), zip_result::readFailed);
    }
    EXPECT_EQ(AddFileToZip(zip, std::u16string(260, u'n'), u"one"), zip_result::ok);
    EXPECT_EQ(CloseZip(zip), zip_result::ok);
    EXPECT_EQ(ReadArchive().size(), 1U);
}

TEST_F(Zip, PacksFromAndToMemoryAndOpenFiles) {
    const Files expected{{"file", Noise(70000)}, {"memory", "hi"}, {"s.gz", Noise(70000)}};
    Write(bin / "one", expected.at("file"));
    const OpenedFile source(u"one", platform::FileAccess::read);
    const auto rewind = [&] { platform::Files().SetFilePointerEx(source.handle, 0); };
    const auto fill = [&](ZipHandle zip) {
        rewind();
        EXPECT_EQ(AddHandleToZip(zip, u"file", source.handle), zip_result::ok);
        EXPECT_EQ(AddMemoryToZip(zip, u"memory", "hi", 2), zip_result::ok);
        rewind();
        EXPECT_EQ(AddHandleToZipSized(zip, u"s.gz", source.handle, 70000), zip_result::ok);
        EXPECT_EQ(AddHandleToZip(zip, u"null", 0), zip_result::badArguments);
    };
    std::string own(200000, '\0');
    const void* block = nullptr;
    std::size_t size = 0;
    for (void* given : {static_cast<void*>(nullptr), static_cast<void*>(own.data())}) {
        ZipHandle zip = CreateZipMemory(given, own.size(), nullptr);
        fill(zip);
        EXPECT_EQ(GetZipMemory(zip, block, size), zip_result::ok);
        EXPECT_TRUE(given == nullptr || given == block);
        EXPECT_TRUE(UnpackedByPeer(std::string(static_cast<const char*>(block), size)) == expected);
        EXPECT_EQ(AddFolderToZip(zip, u"late"), zip_result::alreadyEnded);
        EXPECT_EQ(CloseZip(zip), zip_result::ok);
    }
    EXPECT_EQ(CreateZipMemory(nullptr, 0, nullptr), nullptr);
    EXPECT_EQ(LastZipWriterResult(), zip_result::memoryTooSmall);
    ZipHandle zip = CreateZipMemory(nullptr, 1000, nullptr);
    EXPECT_EQ(AddMemoryToZip(zip, u"n", expected.at("file").data(), 70000), zip_result::memoryTooSmall);
    EXPECT_EQ(CloseZip(zip), zip_result::writeFailed);

    Write(path, "front");
    OpenedFile target(u"a.zip", platform::FileAccess::readWrite);
    platform::Files().SetFilePointerEx(target.handle, 5);
    zip = CreateZipHandle(target.handle, nullptr);
    fill(zip);
    EXPECT_EQ(GetZipMemory(zip, block, size), zip_result::notMemory);
    EXPECT_EQ(CloseZip(zip), zip_result::ok);
    EXPECT_EQ(target.Close(), platform::error::success);
    EXPECT_TRUE(Read(path).starts_with("frontPK"));
    EXPECT_TRUE(ReadArchive() == expected);
}

TEST_F(Zip, AnEmptyArchiveIsItsEndRecord) {
    EXPECT_EQ(CloseZip(CreateZip(u"a.zip", nullptr)), zip_result::ok);
    EXPECT_EQ(Read(path), FromHex("50 4b 05 06 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00"));
}

TEST_F(Zip, AFailureInAnEntryEndsTheArchive) {
    Write(bin / "one", Noise(40000));
    ZipHandle zip = CreateZip(u"a.zip", nullptr);
    EXPECT_EQ(AddFileToZip(zip, u"good", u"one"), zip_result::ok);
    {
        const FileOverride grown(WithInformation({.size = 2}));
        EXPECT_EQ(AddFileToZip(zip, u"bad", u"one"), zip_result::sizeMismatch);
    }
    EXPECT_EQ(AddFileToZip(zip, u"late", u"one"), zip_result::previousError);
    EXPECT_EQ(CloseZip(zip), zip_result::ok);
    EXPECT_EQ(ReadArchive().size(), 1U);

    const FileOverride full(Failing(&platform::FileOperations::WriteFile, platform::error::diskFull));
    zip = CreateZip(u"a.zip", nullptr);
    EXPECT_EQ(AddFileToZip(zip, u"1", u"one"), zip_result::ok);  // still in the buffer
    EXPECT_EQ(AddFileToZip(zip, u"2", u"one"), zip_result::writeFailed);
    EXPECT_EQ(CloseZip(zip), zip_result::writeFailed);
}

}  // namespace kv::test

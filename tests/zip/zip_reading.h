// Archives built byte by byte, and the fixture of tests that read them.
#pragma once

#include <algorithm>
#include <optional>
#include <zlib.h>

#include "tests/support/test_agent.h"
#include "tests/zip/zip_peer.h"
#include "zip/zip_reader.h"

namespace kv::test {

namespace fs = std::filesystem;

inline constexpr std::uint64_t fileTimeOf1970 = 116444736000000000;
inline constexpr std::uint64_t second = 10000000;  // in file times

inline std::string Number(std::uint64_t number, std::size_t bytes) {
    std::string text;
    for (; bytes > 0; --bytes, number >>= 8) text += static_cast<char>(number & 0xFF);
    return text;
}

inline std::string TimeField(std::uint64_t size, std::uint64_t flags, const std::string& times) {
    return "UT" + Number(size, 2) + Number(flags, 1) + times;
}

/// An entry of an archive that is built byte by byte; sound unless a field is changed.
struct Built {
    explicit Built(std::string itsName, const std::string& content = "content")
        : name(itsName), localName(itsName), data(content), size(content.size()) {
        crc = crc32(0, reinterpret_cast<const Bytef*>(content.data()), static_cast<uInt>(content.size()));
    }
    std::string name, localName, data, localExtra, centralExtra;
    std::uint64_t size, crc, method = 0, flags = 0, madeBy = 0, attributes = 0;
    std::optional<std::uint64_t> localOffset;  // of an existing header
    std::uint64_t dosTime = 0x5C6548AE;        // 2026-03-05 09:05:28
};

/// The fields that a local record and a central header share.
inline std::string CommonFields(const Built& entry, const std::string& extra) {
    return Number(entry.flags, 2) + Number(entry.method, 2) + Number(entry.dosTime, 4) + Number(entry.crc, 4) +
           Number(entry.data.size(), 4) + Number(entry.size, 4) + Number(entry.name.size(), 2) +
           Number(extra.size(), 2);
}

inline std::string LocalRecord(const Built& entry) {
    return "PK\3\4" + Number(20, 2) + CommonFields(entry, entry.localExtra) + entry.localName + entry.localExtra +
           entry.data;
}

inline std::string Archive(const std::vector<Built>& entries) {
    std::string bytes, directory;
    for (const Built& entry : entries) {
        const std::size_t own = bytes.size();
        if (!entry.localOffset) bytes += LocalRecord(entry);
        directory += "PK\1\2" + Number(entry.madeBy, 2) + Number(20, 2) + CommonFields(entry, entry.centralExtra) +
                     std::string(6, '\0') + Number(entry.attributes, 4) + Number(entry.localOffset.value_or(own), 4) +
                     entry.name + entry.centralExtra;
    }
    return bytes + directory + "PK\5\6" + Number(0, 4) + Number(entries.size(), 2) + Number(entries.size(), 2) +
           Number(directory.size(), 4) + Number(bytes.size(), 4) + Number(0, 2);
}

inline std::string Deflated(const std::string& content) {
    const auto length = static_cast<uLong>(content.size());
    uLongf size = compressBound(length);
    std::string bytes(size, '\0');
    compress(reinterpret_cast<Bytef*>(bytes.data()), &size, reinterpret_cast<const Bytef*>(content.data()), length);
    return bytes.substr(2, size - 6);  // without zlib's own header and checksum
}

inline ZipHandle OpenBytes(const std::string& bytes, const char* password = nullptr) {
    return OpenZipMemory(bytes.data(), bytes.size(), password);
}

/// The reader's description of an entry.
inline ZipItem Described(const Built& entry) {
    const std::string bytes = Archive({entry});
    ZipHandle zip = OpenBytes(bytes);
    ZipItem item;
    EXPECT_EQ(GetZipItem(zip, 0, item), zip_result::ok) << entry.name.substr(0, 40);
    CloseUnzip(zip);
    return item;
}

/// Unpacks an item to memory in blocks.
inline ZipResult ReadItem(ZipHandle zip, std::int32_t index, std::string& content, std::size_t blockSize = 1000) {
    ZipItem item;
    ZipResult result = GetZipItem(zip, index, item);
    if (result != zip_result::ok) return result;
    content.clear();
    do {
        std::string block(std::min<std::size_t>(blockSize, item.uncompressedSize - content.size()), '\0');
        result = UnzipItemToMemory(zip, index, block.data(), block.size());
        GetZipItem(zip, 0, item = {});  // asking about another item does not disturb
        GetZipItem(zip, index, item);
        content += block;
    } while (result == zip_result::moreData);
    return result;
}

class ZipReading : public TestAgent {
  protected:
    /// The files below a directory, by path.
    static Files Tree(const fs::path& directory) {
        Files files;
        for (const auto& entry : fs::recursive_directory_iterator(directory)) {
            if (entry.is_regular_file())
                files[entry.path().lexically_relative(directory).generic_string()] = Read(entry.path());
        }
        return files;
    }

    Files contents{{"empty", ""},
                   {"d/e/small", "small"},
                   {"d/\xC3\xBC.txt", std::string(200000, 'x')},
                   {"d/noise", Noise(200000)}};
    fs::path download = conf / "download";
};

}  // namespace kv::test

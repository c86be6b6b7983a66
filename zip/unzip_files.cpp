#include <algorithm>

#include "foundation/line_bound.h"
#include "foundation/log.h"
#include "zip/zip_item_name.h"
#include "zip/zip_reader.h"

namespace kv {

namespace {

/// What an item takes on the disk at least, beside its content: a block for each directory and one for itself.
std::uint64_t OwnBlocks(const ZipItem& item) {
    constexpr std::uint64_t blockSize = 4096;
    const auto isSeparator = [](char16_t unit) { return unit == u'/' || unit == u'\\'; };
    const auto separators = std::count_if(item.name.begin(), item.name.end(), isSeparator);
    return blockSize * (1 + static_cast<std::uint64_t>(separators));
}

/// Unpacks one item. `unpacked` counts what the items so far have taken or announced.
ZipResult UnpackNext(ZipHandle zip, std::int32_t index, ZipItem& item, std::uint64_t& unpacked) {
    const ZipResult result = GetZipItem(zip, index, item);
    if (result != zip_result::ok) return result;
    const std::uint64_t size = item.uncompressedSize + OwnBlocks(item);
    if (size > maxUnpackedBytes - unpacked) {
        Log1("\t UnzipFiles :: An item of %u bytes is more than the archive may still unpack to: %u\n",
             item.uncompressedSize, maxUnpackedBytes - unpacked);
        return zip_result::badArguments;
    }
    unpacked += size;
    return UnzipItem(zip, index, item.name);
}

void UnpackAll(ZipHandle zip, std::u16string_view zipPath) {
    ZipItem item;
    GetZipItem(zip, -1, item);
    const std::int32_t count = item.index;
    std::uint64_t unpacked = 0;
    int failed = 0;
    for (std::int32_t index = 0; index < count && failed < maxFailedItems; ++index) {
        const ZipResult result = UnpackNext(zip, index, item, unpacked);
        if (result == zip_result::ok) continue;
        ++failed;
        Log1("\t UnzipFiles :: Not able to unpack item [%d] [%s] of [%s]. Error is [0x%x] [%s]\n", index, item.name,
             zipPath, result, ZipResultText(result));
    }
    if (failed == maxFailedItems) Log1("\t UnzipFiles :: [%s] is given up after %d such items\n", zipPath, failed);
    if (count == 0) Log1("\t UnzipFiles :: [%s] holds no items\n", zipPath);
}

}  // namespace

void UnzipFiles(std::u16string_view zipPath, std::u16string_view directory) {
    const LineBound bound;
    Log3("\t Inside UnzipFiles() \n");
    Log3("UNzipping the files\n");
    ZipHandle zip = OpenZip(zipPath, nullptr);
    if (zip == nullptr) {
        const ZipResult result = LastZipReaderResult();
        Log1("\t UnzipFiles :: Not able to open [%s]. Error is [0x%x] [%s]\n", zipPath, result, ZipResultText(result));
        return;
    }
    SetUnzipBaseDir(zip, directory);
    UnpackAll(zip, zipPath);
    CloseUnzip(zip);
}

}  // namespace kv

#include "foundation/file_utils.h"
#include "foundation/log.h"
#include "zip/zip_reader.h"
#include "zip/zip_writer.h"

namespace kv {

namespace {

/// Unpacks one item; `unpacked` counts the bytes that the items so far have announced.
ZipResult UnpackNext(ZipHandle zip, std::int32_t index, ZipItem& item, std::uint64_t& unpacked) {
    const ZipResult result = GetZipItem(zip, index, item);
    if (result != zip_result::ok) return result;
    if (item.uncompressedSize > maxUnpackedBytes - unpacked) {
        Log1("\t UnzipFiles :: [%s] would have %u bytes, more than the archive may still unpack to: %u\n", item.name,
             item.uncompressedSize, maxUnpackedBytes - unpacked);
        return zip_result::badArguments;
    }
    unpacked += item.uncompressedSize;
    // An absolute path is for callers that name their own; a name from an archive must never pass for one.
    if (StaysBelowDirectory(item.name)) return UnzipItem(zip, index, item.name);
    Log1("\t UnzipFiles :: [%s] would leave the directory\n", item.name);
    return zip_result::badArguments;
}

}  // namespace

void UnzipFiles(std::u16string_view zipPath, std::u16string_view directory) {
    Log3("\t Inside UnzipFiles() \n");
    Log3("UNzipping the files\n");
    ZipHandle zip = OpenZip(zipPath, nullptr);
    if (zip == nullptr) {
        const ZipResult result = LastZipReaderResult();
        Log1("\t UnzipFiles :: Not able to open [%s]. Error is [0x%x] [%s]\n", zipPath, result, ZipResultText(result));
        return;
    }
    SetUnzipBaseDir(zip, directory);
    ZipItem item;
    GetZipItem(zip, -1, item);
    const std::int32_t count = item.index;
    std::uint64_t unpacked = 0;
    for (std::int32_t index = 0; index < count; ++index) {
        const ZipResult result = UnpackNext(zip, index, item, unpacked);
        if (result == zip_result::ok) continue;
        Log1("\t UnzipFiles :: Not able to unpack [%s] of [%s]. Error is [0x%x] [%s]\n", item.name, zipPath, result,
             ZipResultText(result));
    }
    if (IsZipHandleForWriting(zip)) {
        CloseZip(zip);
    } else {
        CloseUnzip(zip);
    }
}

}  // namespace kv

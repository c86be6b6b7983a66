// Any bytes as an archive: every item is described and unpacked, in small pieces and with a bound on all of them
// together. What is unpacked with success has the size that was announced.
#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <cstdlib>

#include "platform/backend.h"
#include "zip/zip_reader.h"

namespace {

constexpr std::uint64_t maxBytes = std::uint64_t{1} << 20;
constexpr std::int32_t maxItems = 500;

/// Unpacks an item until `left` is used up.
void UnpackAll(kv::ZipHandle zip, const kv::ZipItem& item, std::uint64_t& left) {
    std::array<std::uint8_t, 777> block;
    kv::ZipResult result = kv::zip_result::moreData;
    std::uint64_t unpacked = 0;
    while (result == kv::zip_result::moreData && left > 0) {
        result = kv::UnzipItemToMemory(zip, item.index, block.data(), block.size());
        unpacked += block.size();
        left -= std::min<std::uint64_t>(left, block.size());
    }
    if (result == kv::zip_result::ok && unpacked < item.uncompressedSize) std::abort();
    if (result == kv::zip_result::moreData && unpacked >= item.uncompressedSize) std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const bool backendInstalled = (platform::InstallBackend(), true);
    if (!backendInstalled) return 0;
    kv::ZipHandle zip = kv::OpenZipMemory(data, size, "secret");
    if (zip == nullptr) return 0;
    kv::ZipItem item;
    kv::GetZipItem(zip, -1, item);
    const std::int32_t count = std::min(item.index, maxItems);
    std::uint64_t left = maxBytes;
    for (std::int32_t index = 0; index < count; ++index) {
        if (kv::GetZipItem(zip, index, item) == kv::zip_result::ok) UnpackAll(zip, item, left);
    }
    kv::CloseUnzip(zip);
    return 0;
}

// The data of one item, read from beginning to end: decrypted, inflated, and checked against what the headers say. One
// stream serves all items of an archive in turn. It belongs to one thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>
#include <zlib.h>

#include "zip/archive_input.h"
#include "zip/zip_cipher.h"
#include "zip/zip_directory.h"
#include "zip/zip_result.h"

namespace kv {

/// One raw inflate stream, made by the first item and reset for each further one.
struct Inflater {
    z_stream stream{};
    bool made = false;
    bool ended = false;  // the item's data has ended

    Inflater() = default;
    Inflater(const Inflater&) = delete;
    Inflater& operator=(const Inflater&) = delete;
    ~Inflater() {
        if (made) inflateEnd(&stream);
    }
};

struct ItemStream {
    const ArchiveInput* input = nullptr;
    ArchiveWindow window;                // of the local headers and the data
    ZipHeader header;                    // of the directory
    std::uint64_t inputOffset = 0;       // of the first byte not taken yet
    std::uint64_t inputLeft = 0;         // bytes not taken yet
    std::uint32_t outputLeft = 0;        // bytes that the item has still to give
    std::uint32_t crc = 0;               // of the bytes given
    std::vector<std::uint8_t> readable;  // decrypted bytes of an encrypted item; the last `pending` are not taken yet
    std::size_t pending = 0;
    ZipCipher cipher;
    Inflater inflater;
};

/// Starts at the item's first byte. wrongPassword when it is encrypted and the password is absent or another one,
/// flateFailed when its method or encryption is not known: each leaves a log line. corrupt when encrypted data is too
/// short, noMemory when zlib has none; readFailed.
[[nodiscard]] ZipResult StartItem(ItemStream& stream, const ZipCentralEntry& entry, const ZipLocalEntry& local,
                                  const std::optional<std::string>& password);

/// Fills the buffer as far as the item goes, and may use all of it on the way; count says how many bytes are the
/// item's. The item's last byte brings the verdict on the whole. flateFailed when the data is damaged or not as long as
/// the headers say; noMemory, readFailed.
[[nodiscard]] ZipResult ReadItem(ItemStream& stream, std::span<std::uint8_t> buffer, std::size_t& count);

}  // namespace kv

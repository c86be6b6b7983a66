#include "zip/item_stream.h"

#include <algorithm>

#include "foundation/log.h"

namespace kv {

namespace {

using Bytes = std::span<const std::uint8_t>;

constexpr std::size_t decryptSize = 16384;  // bytes at a time

bool IsStored(const ItemStream& stream) {
    return stream.header.method == static_cast<std::uint16_t>(ZipMethod::stored);
}

bool IsEncrypted(const ItemStream& stream) { return (stream.header.flags & flagEncrypted) != 0; }

/// Decrypts the next bytes once all those that were decrypted have been taken.
ZipResult DecryptMore(ItemStream& stream) {
    if (stream.pending > 0 || stream.inputLeft == 0) return zip_result::ok;
    Bytes bytes;
    const ZipResult result = ViewArchive(*stream.input, stream.window, stream.inputOffset, 1, bytes);
    if (result != zip_result::ok) return result;
    const std::size_t size = std::min<std::size_t>({bytes.size(), stream.inputLeft, decryptSize});
    stream.readable.assign(bytes.begin(), bytes.begin() + static_cast<std::ptrdiff_t>(size));
    Decrypt(stream.cipher, stream.readable);
    stream.pending = size;
    stream.inputOffset += size;
    stream.inputLeft -= size;
    return zip_result::ok;
}

/// Shows the next bytes of the item's data; no bytes at its end.
ZipResult ViewInput(ItemStream& stream, Bytes& bytes) {
    if (IsEncrypted(stream)) {
        const ZipResult result = DecryptMore(stream);
        bytes = Bytes(stream.readable).last(stream.pending);
        return result;
    }
    bytes = {};
    if (stream.inputLeft == 0) return zip_result::ok;
    const ZipResult result = ViewArchive(*stream.input, stream.window, stream.inputOffset, 1, bytes);
    if (bytes.size() > stream.inputLeft) bytes = bytes.first(static_cast<std::size_t>(stream.inputLeft));
    return result;
}

void TakeInput(ItemStream& stream, std::size_t size) {
    if (IsEncrypted(stream)) {
        stream.pending -= size;
    } else {
        stream.inputOffset += size;
        stream.inputLeft -= size;
    }
}

/// Gives at least one byte, or the end, or fails.
ZipResult CopySome(ItemStream& stream, std::span<std::uint8_t> buffer, std::size_t& count) {
    Bytes bytes;
    const ZipResult result = ViewInput(stream, bytes);
    if (result != zip_result::ok) return result;
    count = std::min(bytes.size(), buffer.size());
    std::copy_n(bytes.begin(), count, buffer.begin());
    TakeInput(stream, count);
    return count > 0 ? zip_result::ok : zip_result::flateFailed;
}

/// Goes forward by some bytes, or to the end, or fails.
ZipResult InflateSome(ItemStream& stream, std::span<std::uint8_t> buffer, std::size_t& count) {
    Bytes bytes;
    const ZipResult result = ViewInput(stream, bytes);
    if (result != zip_result::ok) return result;
    constexpr std::size_t most = std::size_t{1} << 30;  // within zlib's counts
    z_stream& zlib = stream.inflater.stream;
    const auto input = static_cast<uInt>(std::min(bytes.size(), most));
    const auto output = static_cast<uInt>(std::min(buffer.size(), most));
    zlib.next_in = const_cast<Bytef*>(bytes.data());  // zlib only reads there
    zlib.avail_in = input;
    zlib.next_out = buffer.data();
    zlib.avail_out = output;
    // With Z_FINISH an item that fits into the buffer is not copied into a window first; for any other the code says
    // that the buffer is too small.
    const int code = inflate(&zlib, Z_FINISH);
    if (code == Z_MEM_ERROR) return zip_result::noMemory;
    if (code != Z_BUF_ERROR && code != Z_STREAM_END) return zip_result::flateFailed;
    TakeInput(stream, input - zlib.avail_in);
    count = output - zlib.avail_out;
    if (code == Z_BUF_ERROR && count == 0 && zlib.avail_in == input) return zip_result::flateFailed;
    stream.inflater.ended = code == Z_STREAM_END;
    return zip_result::ok;
}

/// Fills `wanted` bytes of the buffer, which the item still has. inflate may go further and show that it has more.
ZipResult Fill(ItemStream& stream, std::span<std::uint8_t> buffer, std::size_t wanted, std::size_t& count) {
    while (count < wanted) {
        if (stream.inflater.ended) return zip_result::flateFailed;
        std::size_t more = 0;
        const ZipResult result = IsStored(stream) ? CopySome(stream, buffer.subspan(count, wanted - count), more)
                                                  : InflateSome(stream, buffer.subspan(count), more);
        if (result != zip_result::ok) return result;
        count += more;
    }
    return count == wanted ? zip_result::ok : zip_result::flateFailed;
}

/// All bytes have been given: the data must end here, too, and be what the headers say.
ZipResult CheckEnd(ItemStream& stream) {
    while (!IsStored(stream) && !stream.inflater.ended) {
        std::uint8_t tooMuch = 0;
        std::size_t count = 0;
        const ZipResult result = InflateSome(stream, {&tooMuch, 1}, count);
        if (result != zip_result::ok) return result;
        if (count > 0) return zip_result::flateFailed;
    }
    const bool allTaken = stream.inputLeft == 0 && stream.pending == 0;
    return allTaken && stream.crc == stream.header.crc ? zip_result::ok : zip_result::flateFailed;
}

bool StartInflater(Inflater& inflater) {
    inflater.ended = false;
    if (inflater.made) return inflateReset(&inflater.stream) == Z_OK;
    inflater.made = inflateInit2(&inflater.stream, -MAX_WBITS) == Z_OK;
    return inflater.made;
}

/// Takes the header in front of the data, whose last byte also stands in the local header.
ZipResult StartDecryption(ItemStream& stream, const ZipHeader& local, const std::optional<std::string>& password) {
    std::uint8_t check = 0;
    if (stream.inputLeft < cipherHeaderSize) return zip_result::corrupt;
    if (password) StartCipher(stream.cipher, *password);
    for (std::size_t taken = 0; password && taken < cipherHeaderSize; ++taken) {
        const ZipResult result = DecryptMore(stream);
        if (result != zip_result::ok) return result;
        check = stream.readable[stream.readable.size() - stream.pending--];
    }
    const bool crcFollows = (local.flags & flagDataDescriptor) != 0;
    const std::uint32_t expected = crcFollows ? local.dosTimestamp >> 8 & 0xFF : local.crc >> 24;
    if (password && check == expected) return zip_result::ok;
    Log1("\t UnzipItem :: The item is encrypted, and the password is missing or another one\n");
    return zip_result::wrongPassword;
}

}  // namespace

ZipResult StartItem(ItemStream& stream, const ZipCentralEntry& entry, const ZipLocalEntry& local,
                    const std::optional<std::string>& password) {
    stream.header = entry.central.header;
    stream.inputOffset = local.dataOffset;
    stream.inputLeft = stream.header.compressedSize;
    stream.outputLeft = stream.header.uncompressedSize;
    stream.crc = 0;
    stream.readable.clear();
    stream.pending = 0;
    const auto method = static_cast<ZipMethod>(stream.header.method);
    if (method != ZipMethod::stored && method != ZipMethod::deflated) {
        Log1("\t UnzipItem :: The compression method %u is not known\n", stream.header.method);
        return zip_result::flateFailed;
    }
    if ((stream.header.flags & flagsStrongEncryption) != 0) {
        Log1("\t UnzipItem :: Encryption of another kind than the traditional one is not known\n");
        return zip_result::flateFailed;
    }
    if (!StartInflater(stream.inflater)) return zip_result::noMemory;
    return IsEncrypted(stream) ? StartDecryption(stream, local.header, password) : zip_result::ok;
}

ZipResult ReadItem(ItemStream& stream, std::span<std::uint8_t> buffer, std::size_t& count) {
    count = 0;
    const std::size_t wanted = std::min<std::size_t>(buffer.size(), stream.outputLeft);
    const ZipResult result = Fill(stream, buffer, wanted, count);
    if (result != zip_result::ok) return result;
    // crc32 takes no bytes at all for a new start.
    if (count > 0) stream.crc = static_cast<std::uint32_t>(crc32_z(stream.crc, buffer.data(), count));
    stream.outputLeft -= static_cast<std::uint32_t>(count);
    return stream.outputLeft == 0 ? CheckEnd(stream) : zip_result::ok;
}

}  // namespace kv

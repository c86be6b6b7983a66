#include "zip/zip_writer.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cstring>
#include <memory>
#include <new>
#include <optional>
#include <random>
#include <span>
#include <string>
#include <vector>
#include <zlib.h>

#include "foundation/log.h"
#include "foundation/system_error.h"
#include "foundation/text.h"
#include "platform/clock.h"
#include "platform/files.h"
#include "platform/utf.h"
#include "zip/archive_output.h"
#include "zip/zip_cipher.h"
#include "zip/zip_records.h"
#include "zip/zip_source.h"

namespace kv {

namespace {

constexpr int compressionLevel = 8;
constexpr int memoryLevel = 8;  // zlib's own default

/// One raw deflate stream, made by the first entry that needs it and reset for each further one.
struct Deflater {
    z_stream stream{};
    bool made = false;

    Deflater() = default;
    Deflater(const Deflater&) = delete;
    Deflater& operator=(const Deflater&) = delete;
    ~Deflater() {
        if (made) deflateEnd(&stream);
    }
};

struct ZipWriter {
    ArchiveOutput output;
    std::string password;               // empty when nothing is encrypted
    bool canSeek = false;               // what has been written can be written over
    bool fileTellsPosition = false;     // memory can seek and has no file
    ZipResult error = zip_result::ok;   // sticky: set by a failure in the middle of an entry
    std::optional<ZipResult> finished;  // what writing the central directory came to; absent before
    std::vector<ZipEntry> entries;
    std::uint64_t directorySize = 0;  // bytes that the central headers of the entries will take
    Deflater deflater;
    ReadBuffer readBuffer{};
};

std::atomic<ZipResult> lastWriterResult{zip_result::ok};

ZipResult Remember(ZipResult result) {
    lastWriterResult = result;
    return result;
}

/// The writer behind a handle; null with the reason when there is none.
ZipWriter* WriterOf(ZipHandle zip, ZipResult& result) { return ObjectOf<ZipWriter>(zip, ZipKind::writer, result); }

std::span<const std::uint8_t> TextBytes(std::string_view text) {
    return {reinterpret_cast<const std::uint8_t*>(text.data()), text.size()};
}

enum class EntryKind { file, folder };

std::string ArchiveName(std::u16string_view name, EntryKind kind) {
    std::u16string slashed(name);
    ReplaceChar(slashed, u'\\', u'/');
    if (kind == EntryKind::folder && !slashed.empty() && slashed.back() != u'/') slashed += u'/';
    return platform::Utf8FromWide(slashed);
}

/// Files that are already compressed are stored as they are.
ZipMethod MethodFor(std::u16string_view name) {
    static constexpr std::array<std::u16string_view, 8> compressed{u".Z",   u".zip", u".zoo", u".arc",
                                                                   u".lzh", u".arj", u".gz",  u".tgz"};
    const std::size_t point = name.rfind(u'.');
    if (point == std::u16string_view::npos) return ZipMethod::deflated;
    const std::u16string_view extension = name.substr(point);
    const bool stored = std::any_of(compressed.begin(), compressed.end(), [&](std::u16string_view known) {
        return CompareIgnoreCase(known, extension) == 0;
    });
    return stored ? ZipMethod::stored : ZipMethod::deflated;
}

std::uint64_t CentralSize(const ZipEntry& entry) { return centralHeaderSize + entry.name.size() + centralExtraSize; }

/// The most bytes that deflate makes of that many. Asked for in parts, because zlib counts in 32 bits on some systems.
std::uint64_t DeflatedSizeAtMost(std::uint64_t size) {
    constexpr uLong part = 1UL << 30;
    return size / part * deflateBound(nullptr, part) + deflateBound(nullptr, static_cast<uLong>(size % part));
}

/// The most bytes that an entry takes with its two headers.
std::uint64_t EntrySizeAtMost(std::size_t nameSize, std::uint64_t size) {
    constexpr std::size_t headers =
        localHeaderSize + localExtraSize + cipherHeaderSize + dataDescriptorSize + centralHeaderSize + centralExtraSize;
    return headers + 2 * nameSize + DeflatedSizeAtMost(size);
}

/// Whether the archive can still be finished within 16-bit counts and 32-bit offsets once the entry is in it.
bool HasRoomFor(const ZipWriter& writer, const ZipEntry& entry, std::uint64_t sourceSize) {
    if (writer.entries.size() >= maxEntries || sourceSize > maxArchiveSize) return false;
    return writer.output.position() + EntrySizeAtMost(entry.name.size(), sourceSize) + writer.directorySize +
               endRecordSize <=
           maxArchiveSize;
}

/// A record that does not fit into the memory counts as one that cannot be written.
ZipResult RecordResult(ZipResult result) {
    return result == zip_result::memoryTooSmall ? zip_result::writeFailed : result;
}

ZipResult AppendLocalHeader(ArchiveOutput& output, const ZipEntry& entry) {
    ZipResult result = Append(output, BuildLocalHeader(entry));
    if (result == zip_result::ok) result = Append(output, TextBytes(entry.name));
    if (result == zip_result::ok) result = Append(output, BuildLocalExtra(entry));
    return RecordResult(result);
}

bool IsEncrypted(const ZipEntry& entry) { return (entry.flags & flagEncrypted) != 0; }

/// Starts the encryption of an entry with its header: noise, and last a byte that the local header has, too.
ZipResult AppendCipherHeader(ZipWriter& writer, const ZipEntry& entry) {
    std::mt19937 noise(static_cast<std::uint32_t>(platform::Clock().GetTickCount64() + writer.output.position()));
    std::array<std::uint8_t, cipherHeaderSize> header;
    std::generate(header.begin(), header.end(), [&noise] { return static_cast<std::uint8_t>(noise()); });
    header.back() = static_cast<std::uint8_t>(DosTimestamp(entry.times.lastWrite) >> 8);
    StartCipher(writer.output.cipher.emplace(), writer.password);
    return Append(writer.output, header);
}

/// Hands the source's bytes to `write`, one read at a time, in the end no bytes, and keeps CRC and count.
template <class Write>
ZipResult ForEachRead(ZipWriter& writer, ZipSource& source, ZipEntry& entry, const Write& write) {
    const std::uint64_t limit = source.size.value_or(maxArchiveSize);
    std::uint64_t count = 0;
    std::span<const std::uint8_t> bytes;
    do {
        ZipResult result = ReadSource(source, writer.readBuffer, bytes);
        if (result != zip_result::ok) return result;
        if (!bytes.empty()) {  // crc32 takes no bytes at all for a new start
            entry.crc = static_cast<std::uint32_t>(crc32(entry.crc, bytes.data(), static_cast<uInt>(bytes.size())));
        }
        count += bytes.size();
        if (count > limit) return zip_result::sizeMismatch;  // it grows, and may go on growing
        result = write(bytes);
        if (result != zip_result::ok) return result;
    } while (!bytes.empty());
    entry.uncompressedSize = static_cast<std::uint32_t>(count);
    return source.size.value_or(count) == count ? zip_result::ok : zip_result::sizeMismatch;
}

bool StartStream(Deflater& deflater) {
    if (deflater.made) return deflateReset(&deflater.stream) == Z_OK;
    deflater.made = deflateInit2(&deflater.stream, compressionLevel, Z_DEFLATED, -MAX_WBITS, memoryLevel,
                                 Z_DEFAULT_STRATEGY) == Z_OK;
    return deflater.made;
}

ZipResult DeflateBytes(z_stream& stream, ArchiveOutput& output, std::span<const std::uint8_t> bytes) {
    stream.next_in = const_cast<Bytef*>(bytes.data());  // zlib only reads there
    stream.avail_in = static_cast<uInt>(bytes.size());
    do {
        std::span<std::uint8_t> space;
        if (const ZipResult result = FreeSpace(output, space); result != zip_result::ok) return result;
        stream.next_out = space.data();
        stream.avail_out = static_cast<uInt>(space.size());
        if (deflate(&stream, bytes.empty() ? Z_FINISH : Z_NO_FLUSH) == Z_STREAM_ERROR) return zip_result::flateFailed;
        CommitSpace(output, space.size() - stream.avail_out);
    } while (stream.avail_out == 0);
    return zip_result::ok;
}

ZipResult AppendData(ZipWriter& writer, ZipSource& source, ZipEntry& entry) {
    if (entry.method == ZipMethod::stored) {
        return ForEachRead(writer, source, entry, [&](auto bytes) { return Append(writer.output, bytes); });
    }
    if (!StartStream(writer.deflater)) return zip_result::flateFailed;
    return ForEachRead(writer, source, entry,
                       [&](auto bytes) { return DeflateBytes(writer.deflater.stream, writer.output, bytes); });
}

/// Completes the local header, or puts what it could not say behind the data when the output cannot go back.
ZipResult CompleteEntry(ZipWriter& writer, ZipEntry& entry, std::uint32_t announcedSize) {
    if (writer.canSeek && !IsEncrypted(entry)) {
        entry.flags &= static_cast<std::uint16_t>(~flagDataDescriptor);
        return Rewrite(writer.output, entry.localHeaderOffset, BuildLocalHeader(entry));
    }
    if (entry.method == ZipMethod::stored && entry.compressedSize != announcedSize) return zip_result::changedMind;
    return RecordResult(Append(writer.output, BuildDataDescriptor(entry)));
}

ZipResult WriteEntry(ZipWriter& writer, ZipSource& source, ZipEntry& entry) {
    ZipResult result = MakeRoomForEntry(writer.output);
    if (result != zip_result::ok) return result;
    entry.localHeaderOffset = static_cast<std::uint32_t>(writer.output.position());
    entry.uncompressedSize = static_cast<std::uint32_t>(source.size.value_or(0));
    const std::uint32_t storedSize =
        entry.uncompressedSize + (IsEncrypted(entry) ? static_cast<std::uint32_t>(cipherHeaderSize) : 0);
    entry.compressedSize = entry.method == ZipMethod::stored && source.size ? storedSize : 0;
    const std::uint32_t announcedSize = entry.compressedSize;

    result = AppendLocalHeader(writer.output, entry);
    const std::uint64_t dataOffset = writer.output.position();
    if (result == zip_result::ok && IsEncrypted(entry)) result = AppendCipherHeader(writer, entry);
    if (result == zip_result::ok) result = AppendData(writer, source, entry);
    writer.output.cipher.reset();
    if (result != zip_result::ok) return result;
    entry.compressedSize = static_cast<std::uint32_t>(writer.output.position() - dataOffset);
    result = CompleteEntry(writer, entry, announcedSize);
    if (result != zip_result::ok) return result;
    writer.directorySize += CentralSize(entry);
    writer.entries.push_back(std::move(entry));
    return zip_result::ok;
}

/// The steps that all entries have in common; `open` fills the source. A failure before the entry's first byte leaves
/// the archive good; a later one makes it refuse all that follows.
template <class Open>
ZipResult AddEntry(ZipHandle zip, std::u16string_view nameInZip, EntryKind kind, const Open& open) {
    ZipResult result = zip_result::ok;
    ZipWriter* writer = WriterOf(zip, result);
    if (writer == nullptr) return result;
    if (writer->error != zip_result::ok) return zip_result::previousError;
    if (writer->finished) return zip_result::alreadyEnded;
    try {
        ZipEntry entry;
        entry.name = ArchiveName(nameInZip, kind);
        if (entry.name.empty() || entry.name.size() > maxNameSize) return zip_result::badArguments;
        entry.method = kind == EntryKind::folder ? ZipMethod::stored : MethodFor(nameInZip);
        if (kind == EntryKind::file && !writer->password.empty()) entry.flags |= flagEncrypted;

        ZipSource source;
        result = open(*writer, source);
        if (result != zip_result::ok) return result;
        if (!HasRoomFor(*writer, entry, source.size.value_or(0))) return zip_result::badArguments;
        entry.times = source.times;
        entry.externalAttributes = source.externalAttributes;
        writer->error = WriteEntry(*writer, source, entry);
    } catch (const std::bad_alloc&) {
        writer->output.cipher.reset();
        writer->error = zip_result::noMemory;
    }
    return writer->error;
}

ZipResult AppendDirectory(ZipWriter& writer) {
    const std::uint64_t start = writer.output.position();
    for (const ZipEntry& entry : writer.entries) {
        ZipResult result = Append(writer.output, BuildCentralHeader(entry));
        if (result == zip_result::ok) result = Append(writer.output, TextBytes(entry.name));
        if (result == zip_result::ok) result = Append(writer.output, BuildCentralExtra(entry));
        if (result != zip_result::ok) return RecordResult(result);
    }
    const ZipDirectory directory{.entries = static_cast<std::uint16_t>(writer.entries.size()),
                                 .size = static_cast<std::uint32_t>(writer.output.position() - start),
                                 .offset = static_cast<std::uint32_t>(start)};
    return RecordResult(Append(writer.output, BuildEndRecord(directory)));
}

ZipResult WriteDirectory(ZipWriter& writer) {
    // The file holds less than the offsets say, and no directory can repair that.
    if (writer.error == zip_result::writeFailed) return zip_result::writeFailed;
    try {
        const ZipResult result = AppendDirectory(writer);
        return result == zip_result::ok ? FlushToDisk(writer.output) : result;
    } catch (const std::bad_alloc&) {
        return zip_result::noMemory;
    }
}

/// The first time, writes the central directory and brings the whole archive to the disk.
ZipResult Finish(ZipWriter& writer) {
    if (!writer.finished) writer.finished = WriteDirectory(writer);
    return *writer.finished;
}

/// Takes an open file as the output.
void UseFile(ZipWriter& writer, platform::FileHandle file) {
    writer.output.file = file;
    writer.canSeek = platform::Files().GetFilePointer(file, writer.output.written) == platform::error::success;
    if (!writer.canSeek) writer.output.written = 0;
    writer.fileTellsPosition = writer.canSeek;
}

/// `open` makes the output ready.
template <class Open>
ZipHandle Create(const char* password, const Open& open) {
    try {
        auto writer = std::make_unique<ZipWriter>();
        if (password != nullptr) writer->password = password;
        const bool isGoodPassword = password == nullptr || !writer->password.empty();
        if (Remember(isGoodPassword ? open(*writer) : zip_result::badArguments) != zip_result::ok) return nullptr;
        auto* handle = new ZipHandleRecord{ZipKind::writer, writer.get()};
        writer.release();  // the handle owns it now
        return handle;
    } catch (const std::bad_alloc&) {
        Remember(zip_result::noMemory);
        return nullptr;
    }
}

/// Adds an open file; sizeToCome counts when the archive's own file does not tell its position.
ZipResult AddOpenFile(ZipHandle zip, std::u16string_view nameInZip, platform::FileHandle file,
                      std::optional<std::uint64_t> sizeToCome) {
    return AddEntry(zip, nameInZip, EntryKind::file, [&](ZipWriter& writer, ZipSource& source) {
        if (file == 0) return zip_result::badArguments;
        const bool fromFile = writer.fileTellsPosition;
        if (fromFile && platform::Files().SetFilePointerEx(file, 0) != platform::error::success) {
            return zip_result::readFailed;
        }
        const ZipResult result = OpenHandleSource(file, fromFile, writer.readBuffer, source);
        if (!fromFile) source.size = sizeToCome;
        return result;
    });
}

}  // namespace

ZipHandle CreateZip(std::u16string_view path, const char* password) {
    Log4("\t Inside CreateZip() \n");
    return Create(password, [&](ZipWriter& writer) {
        OpenFile& file = writer.output.ownFile;
        const platform::Error error = file.Open(path, platform::FileAccess::write, platform::FileShare::none,
                                                platform::FileDisposition::createAlways);
        if (error != platform::error::success) {
            file.handle = 0;
            LogLastSystemError(error);
            return zip_result::noFile;
        }
        UseFile(writer, file.handle);
        return zip_result::ok;
    });
}

ZipHandle CreateZipHandle(platform::FileHandle file, const char* password) {
    Log4("\t Inside CreateZipHandle() \n");
    return Create(password, [&](ZipWriter& writer) {
        if (file == 0) return zip_result::badArguments;
        UseFile(writer, file);
        return zip_result::ok;
    });
}

ZipHandle CreateZipMemory(void* block, std::size_t size, const char* password) {
    Log4("\t Inside CreateZipMemory() \n");
    return Create(password, [&](ZipWriter& writer) {
        if (size == 0) return zip_result::memoryTooSmall;
        ArchiveOutput& output = writer.output;
        if (block == nullptr) output.owned = std::make_unique_for_overwrite<std::uint8_t[]>(size);
        output.buffer = {block != nullptr ? static_cast<std::uint8_t*>(block) : output.owned.get(), size};
        writer.canSeek = true;
        return zip_result::ok;
    });
}

ZipResult AddFileToZip(ZipHandle zip, std::u16string_view nameInZip, std::u16string_view path) {
    Log4("\t Inside AddFileToZip() \n");
    return Remember(AddEntry(zip, nameInZip, EntryKind::file, [&](ZipWriter& writer, ZipSource& source) {
        // Whether the source's own times and attributes are taken depends on whether the output can seek. It has always
        // been so, and the server gets the same archives.
        return OpenFileSource(path, writer.fileTellsPosition, writer.readBuffer, source);
    }));
}

ZipResult AddHandleToZip(ZipHandle zip, std::u16string_view nameInZip, platform::FileHandle file) {
    Log4("\t Inside AddHandleToZip() \n");
    return Remember(AddOpenFile(zip, nameInZip, file, std::nullopt));
}

ZipResult AddHandleToZipSized(ZipHandle zip, std::u16string_view nameInZip, platform::FileHandle file,
                              std::uint64_t size) {
    Log4("\t Inside AddHandleToZipSized() \n");
    return Remember(AddOpenFile(zip, nameInZip, file, size));
}

ZipResult AddMemoryToZip(ZipHandle zip, std::u16string_view nameInZip, const void* block, std::size_t size) {
    Log4("\t Inside AddMemoryToZip() \n");
    return Remember(AddEntry(zip, nameInZip, EntryKind::file, [&](ZipWriter&, ZipSource& source) {
        if (block == nullptr && size > 0) return zip_result::badArguments;
        OpenMemorySource({static_cast<const std::uint8_t*>(block), size}, source);
        return zip_result::ok;
    }));
}

ZipResult AddFolderToZip(ZipHandle zip, std::u16string_view nameInZip) {
    Log4("\t Inside AddFolderToZip() \n");
    return Remember(AddEntry(zip, nameInZip, EntryKind::folder, [&](ZipWriter&, ZipSource& source) {
        OpenFolderSource(source);
        return zip_result::ok;
    }));
}

ZipResult GetZipMemory(ZipHandle zip, const void*& block, std::size_t& size) {
    Log4("\t Inside GetZipMemory() \n");
    block = nullptr;
    size = 0;
    ZipResult result = zip_result::ok;
    ZipWriter* writer = WriterOf(zip, result);
    if (writer == nullptr) return Remember(result);
    result = Finish(*writer);
    if (!writer->output.isMemory()) return Remember(zip_result::notMemory);
    if (result != zip_result::ok) return Remember(result);
    block = writer->output.buffer.data();
    size = writer->output.used;
    return Remember(result);
}

ZipResult CloseZip(ZipHandle zip) {
    Log4("\t Inside CloseZip() \n");
    ZipResult result = zip_result::ok;
    const std::unique_ptr<ZipWriter> writer(WriterOf(zip, result));
    if (writer == nullptr) return Remember(result);
    const std::unique_ptr<ZipHandleRecord> handle(zip);
    return Remember(Finish(*writer));
}

std::uint64_t ZippedSizeAtMost(std::u16string_view nameInZip, std::uint64_t size) {
    return EntrySizeAtMost(platform::Utf8FromWide(nameInZip).size(), size);
}

bool IsZipHandleForWriting(ZipHandle zip) { return zip != nullptr && zip->kind == ZipKind::writer; }

ZipResult LastZipWriterResult() { return lastWriterResult; }

std::size_t FormatZipMessage(ZipResult code, char* buffer, std::size_t size) {
    constexpr ZipResult lastResult = 1;
    const std::string_view text = ZipResultText(code == lastResult ? LastZipWriterResult() : code);
    if (buffer != nullptr && size > 0) {
        const std::size_t copied = std::min(text.size(), size - 1);
        std::memcpy(buffer, text.data(), copied);
        buffer[copied] = '\0';
    }
    return text.size();
}

}  // namespace kv

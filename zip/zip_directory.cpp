#include "zip/zip_directory.h"

#include <algorithm>
#include <string_view>

#include "foundation/log.h"

namespace kv {

namespace {

using Bytes = std::span<const std::uint8_t>;

constexpr std::size_t maxCommentSize = 0xFFFF;

/// The size stands in a 64-bit record of the extra field.
constexpr std::uint32_t sizeElsewhere = 0xFFFFFFFF;

ZipResult Refuse(const char* reason) {
    Log1("\t OpenZip :: %s\n", reason);
    return zip_result::corrupt;
}

/// Finds the end record that is nearest to the end of the archive and whose comment is whole.
ZipResult FindEndRecord(const ArchiveInput& input, ArchiveWindow& window, std::uint64_t& offset, ZipEndRecord& end) {
    const std::size_t size =
        static_cast<std::size_t>(std::min<std::uint64_t>(input.size, endRecordSize + maxCommentSize));
    Bytes tail;
    if (const ZipResult result = ViewArchive(input, window, input.size - size, size, tail); result != zip_result::ok) {
        return result;
    }
    for (std::size_t behind = endRecordSize; behind <= size; ++behind) {
        const Bytes record = tail.subspan(size - behind);
        if (!ParseEndRecord(record.first<endRecordSize>(), end) || endRecordSize + end.commentLength > behind) continue;
        offset = input.size - behind;
        return zip_result::ok;
    }
    return Refuse("No end record, so no zip archive or not a whole one");
}

bool HasEnd64Locator(const ArchiveInput& input, ArchiveWindow& window, std::uint64_t endOffset) {
    Bytes bytes;
    return endOffset >= end64LocatorSize &&
           ViewArchive(input, window, endOffset - end64LocatorSize, end64LocatorSize, bytes) == zip_result::ok &&
           IsEnd64Locator(bytes.first<end64LocatorSize>());
}

ZipResult CheckEndRecord(const ArchiveInput& input, ArchiveWindow& window, std::uint64_t endOffset,
                         const ZipEndRecord& end) {
    if (HasEnd64Locator(input, window, endOffset)) return Refuse("Archives with 64-bit records are not read");
    if (end.disk != 0 || end.directoryDisk != 0 || end.entriesOnDisk != end.directory.entries) {
        return Refuse("Archives on several disks are not read");
    }
    if (std::uint64_t{end.directory.size} + end.directory.offset > endOffset) {
        return Refuse("The central directory does not fit into the archive");
    }
    return zip_result::ok;
}

ZipResult ViewCentralHeader(const ArchiveInput& input, ArchiveWindow& window, std::uint64_t offset,
                            ZipCentralHeader& central) {
    Bytes bytes;
    const ZipResult result = ViewArchive(input, window, offset, centralHeaderSize, bytes);
    if (result != zip_result::ok) return result;
    return ParseCentralHeader(bytes.first<centralHeaderSize>(), central) ? zip_result::ok : zip_result::corrupt;
}

std::uint64_t CentralRecordSize(const ZipCentralHeader& central) {
    return std::uint64_t{centralHeaderSize} + central.header.nameLength + central.header.extraLength +
           central.commentLength;
}

/// Walks over the headers, which must fill the directory exactly.
ZipResult IndexEntries(const ArchiveInput& input, ArchiveWindow& window, const ZipDirectory& from,
                       ZipDirectoryIndex& directory) {
    std::uint64_t at = 0;
    for (unsigned i = 0; i < from.entries; ++i) {
        ZipCentralHeader central;
        const ZipResult result = ViewCentralHeader(input, window, directory.directoryStart + at, central);
        if (result == zip_result::readFailed) return result;
        if (result != zip_result::ok) return Refuse("The central directory is damaged");
        if (central.disk != 0) return Refuse("Archives on several disks are not read");
        directory.centralOffsets.push_back(static_cast<std::uint32_t>(at));
        directory.localOffsets.push_back(central.localHeaderOffset);
        at += CentralRecordSize(central);
        if (at > from.size) break;
    }
    if (at != from.size) return Refuse("The central directory is not as long as the archive says");
    std::sort(directory.localOffsets.begin(), directory.localOffsets.end());
    return zip_result::ok;
}

/// Where the room of an entry ends: at the next local header, or for the last one at the directory. Two entries that
/// claim the same header have no room.
std::uint64_t EntryEnd(const ZipDirectoryIndex& directory, std::uint32_t localOffset) {
    const auto own = std::lower_bound(directory.localOffsets.begin(), directory.localOffsets.end(), localOffset);
    const auto next = own + 1;
    return next == directory.localOffsets.end() ? directory.directoryStart : directory.archiveStart + *next;
}

bool Has64BitSizes(const ZipHeader& header) {
    return header.compressedSize == sizeElsewhere || header.uncompressedSize == sizeElsewhere;
}

/// Streaming writers put a 64-bit record into the local header before they know that the size is small.
bool IsSize(std::uint32_t local, std::uint32_t central) { return local == central || local == sizeElsewhere; }

/// A header whose CRC and sizes follow the data may leave them out.
bool TellsTheSame(const ZipHeader& local, const ZipHeader& central) {
    return local.method == central.method && local.nameLength == central.nameLength &&
           ((local.flags ^ central.flags) & flagEncrypted) == 0 &&
           ((local.flags & flagDataDescriptor) != 0 ||
            (local.crc == central.crc && IsSize(local.compressedSize, central.compressedSize) &&
             IsSize(local.uncompressedSize, central.uncompressedSize)));
}

std::string_view TextFromBytes(Bytes bytes) { return {reinterpret_cast<const char*>(bytes.data()), bytes.size()}; }

}  // namespace

ZipResult ReadDirectory(const ArchiveInput& input, ArchiveWindow& window, ZipDirectoryIndex& directory) {
    std::uint64_t endOffset = 0;
    ZipEndRecord end;
    ZipResult result = FindEndRecord(input, window, endOffset, end);
    if (result == zip_result::ok) result = CheckEndRecord(input, window, endOffset, end);
    if (result != zip_result::ok) return result;
    directory.directoryStart = endOffset - end.directory.size;
    directory.archiveStart = directory.directoryStart - end.directory.offset;
    return IndexEntries(input, window, end.directory, directory);
}

ZipResult ReadCentralEntry(const ArchiveInput& input, ArchiveWindow& window, const ZipDirectoryIndex& directory,
                           std::size_t index, ZipCentralEntry& entry) {
    const std::uint64_t offset = directory.directoryStart + directory.centralOffsets[index];
    ZipResult result = ViewCentralHeader(input, window, offset, entry.central);
    if (result != zip_result::ok) return result;
    const ZipHeader& header = entry.central.header;
    Bytes bytes;
    result = ViewArchive(input, window, offset + centralHeaderSize, header.nameLength, bytes);
    if (result != zip_result::ok) return result;
    entry.name = TextFromBytes(bytes.first(header.nameLength));
    result = ViewArchive(input, window, offset + centralHeaderSize + header.nameLength, header.extraLength, bytes);
    if (result != zip_result::ok) return result;
    entry.times = {};
    ParseExtendedTimes(bytes.first(header.extraLength), entry.times);
    return zip_result::ok;
}

ZipResult ReadLocalEntry(const ArchiveInput& input, ArchiveWindow& window, const ZipDirectoryIndex& directory,
                         const ZipCentralEntry& entry, ZipLocalEntry& local) {
    const ZipCentralHeader& central = entry.central;
    const std::uint64_t offset = directory.archiveStart + central.localHeaderOffset;
    Bytes bytes;
    ZipResult result = ViewArchive(input, window, offset, localHeaderSize, bytes);
    if (result != zip_result::ok) return result;
    if (!ParseLocalHeader(bytes.first<localHeaderSize>(), local.header)) return zip_result::corrupt;
    if (Has64BitSizes(central.header)) {
        Log1("\t GetZipItem :: An item with 64-bit sizes is not read\n");
        return zip_result::corrupt;
    }
    if (!TellsTheSame(local.header, central.header)) return zip_result::corrupt;
    const std::uint64_t extraOffset = offset + localHeaderSize + local.header.nameLength;
    local.dataOffset = extraOffset + local.header.extraLength;
    if (local.dataOffset + central.header.compressedSize > EntryEnd(directory, central.localHeaderOffset)) {
        return zip_result::corrupt;
    }
    result = ViewArchive(input, window, offset + localHeaderSize, local.header.nameLength, bytes);
    if (result != zip_result::ok) return result;
    if (TextFromBytes(bytes.first(local.header.nameLength)) != entry.name) return zip_result::corrupt;
    result = ViewArchive(input, window, extraOffset, local.header.extraLength, bytes);
    if (result != zip_result::ok) return result;
    local.times = {};
    ParseExtendedTimes(bytes.first(local.header.extraLength), local.times);
    return zip_result::ok;
}

}  // namespace kv

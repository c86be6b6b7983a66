// The records of a zip archive as they stand on the disk, all numbers little-endian (PKWARE's APPNOTE, sections 4.3.7,
// 4.3.9, 4.3.12 and 4.3.16; the "UT" extra field is Info-ZIP's extended time stamp). Pure conversion: nothing here
// reads or writes a file.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string>

#include "platform/clock.h"

namespace kv {

inline constexpr std::size_t localHeaderSize = 30;
inline constexpr std::size_t localExtraSize = 17;
inline constexpr std::size_t centralHeaderSize = 46;
inline constexpr std::size_t centralExtraSize = 9;
inline constexpr std::size_t dataDescriptorSize = 16;
inline constexpr std::size_t endRecordSize = 22;

/// The longest name of an entry, in bytes.
inline constexpr std::size_t maxNameSize = 260;

/// The most entries that the end record can count.
inline constexpr std::size_t maxEntries = 0xFFFF;

/// Sizes and offsets in an archive are 32 bits wide.
inline constexpr std::uint64_t maxArchiveSize = 0xFFFFFFFF;

enum class ZipMethod : std::uint16_t { stored = 0, deflated = 8 };

/// Flag bit 0: the data is encrypted.
inline constexpr std::uint16_t flagEncrypted = 1;

/// Flag bit 3: CRC and sizes stand behind the data and not in the local header.
inline constexpr std::uint16_t flagDataDescriptor = 8;

/// Flag bits 6 and 13: not the traditional encryption.
inline constexpr std::uint16_t flagsStrongEncryption = 0x2040;

/// Points of time in the unit of Windows file times: 100 nanoseconds since 1601.
struct ZipTimes {
    std::uint64_t lastWrite = 0;
    std::uint64_t lastAccess = 0;
    std::uint64_t creation = 0;
};

/// One entry, as the local and the central header describe it.
struct ZipEntry {
    std::string name;  // UTF-8, slashes, at most maxNameSize bytes
    ZipMethod method = ZipMethod::deflated;
    std::uint16_t flags = flagDataDescriptor;
    ZipTimes times;
    std::uint32_t crc = 0;
    std::uint32_t compressedSize = 0;
    std::uint32_t uncompressedSize = 0;
    std::uint32_t externalAttributes = 0;  // low byte DOS attributes, high word Unix mode
    std::uint32_t localHeaderOffset = 0;   // from the start of the archive
};

struct ZipDirectory {
    std::uint16_t entries = 0;
    std::uint32_t size = 0;    // bytes
    std::uint32_t offset = 0;  // from the start of the archive
};

/// The local header, without the name and the extra field behind it.
std::array<std::uint8_t, localHeaderSize> BuildLocalHeader(const ZipEntry& entry);
std::array<std::uint8_t, localExtraSize> BuildLocalExtra(const ZipEntry& entry);

/// The record that follows the data of an entry whose local header could not be completed.
std::array<std::uint8_t, dataDescriptorSize> BuildDataDescriptor(const ZipEntry& entry);

/// The central header, without the name and the extra field behind it.
std::array<std::uint8_t, centralHeaderSize> BuildCentralHeader(const ZipEntry& entry);
std::array<std::uint8_t, centralExtraSize> BuildCentralExtra(const ZipEntry& entry);

std::array<std::uint8_t, endRecordSize> BuildEndRecord(const ZipDirectory& directory);

/// What both the local and the central header tell of an entry, as it stands there.
struct ZipHeader {
    std::uint16_t flags = 0;
    std::uint16_t method = 0;
    std::uint32_t dosTimestamp = 0;  // date in the high half, time in the low one
    std::uint32_t crc = 0;
    std::uint32_t compressedSize = 0;
    std::uint32_t uncompressedSize = 0;
    std::uint16_t nameLength = 0;   // bytes behind the header
    std::uint16_t extraLength = 0;  // bytes behind the name
};

struct ZipCentralHeader {
    ZipHeader header;
    std::uint16_t versionMadeBy = 0;  // host in the high byte
    std::uint16_t commentLength = 0;  // bytes behind the extra field
    std::uint16_t disk = 0;
    std::uint32_t externalAttributes = 0;
    std::uint32_t localHeaderOffset = 0;
};

struct ZipEndRecord {
    std::uint16_t disk = 0;
    std::uint16_t directoryDisk = 0;
    std::uint16_t entriesOnDisk = 0;
    std::uint16_t commentLength = 0;  // bytes behind the record
    ZipDirectory directory;
};

/// False when the bytes do not begin with the signature of such a record.
[[nodiscard]] bool ParseLocalHeader(std::span<const std::uint8_t, localHeaderSize> bytes, ZipHeader& header);
[[nodiscard]] bool ParseCentralHeader(std::span<const std::uint8_t, centralHeaderSize> bytes,
                                      ZipCentralHeader& central);
[[nodiscard]] bool ParseEndRecord(std::span<const std::uint8_t, endRecordSize> bytes, ZipEndRecord& end);

/// Whether the bytes are the locator of a 64-bit end record, which comes right before the end record.
inline constexpr std::size_t end64LocatorSize = 20;
[[nodiscard]] bool IsEnd64Locator(std::span<const std::uint8_t, end64LocatorSize> bytes);

/// Takes the times that the "UT" field of a whole extra field holds; the others stay.
void ParseExtendedTimes(std::span<const std::uint8_t> extra, ZipTimes& times);

/// DOS date in the high half, DOS time in the low one, of the time as it stands: no change to local time.
std::uint32_t DosTimestamp(std::uint64_t fileTime);

/// The local time that a DOS date and time stand for; a part that is out of range becomes the nearest one within.
platform::LocalTime LocalTimeOfDos(std::uint32_t dosTimestamp);

/// The low 32 bits of the seconds since 1970.
std::uint32_t UnixTime(std::uint64_t fileTime);

/// The file time of a moment in milliseconds since 1970.
std::uint64_t FileTimeOfMilliseconds(std::int64_t millisecondsSince1970);

/// A clock reading written as a file time, as if it were UTC.
std::uint64_t FileTimeOf(const platform::LocalTime& time);

}  // namespace kv

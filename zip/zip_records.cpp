#include "zip/zip_records.h"

#include <algorithm>
#include <chrono>
#include <concepts>

namespace kv {

namespace {

using U8 = std::uint8_t;
using U16 = std::uint16_t;
using U32 = std::uint32_t;

constexpr U32 localSignature = 0x04034B50;       // "PK" 3 4
constexpr U32 centralSignature = 0x02014B50;     // "PK" 1 2
constexpr U32 descriptorSignature = 0x08074B50;  // "PK" 7 8
constexpr U32 endSignature = 0x06054B50;         // "PK" 5 6
constexpr U32 locatorSignature = 0x07064B50;     // "PK" 6 7

constexpr U16 versionNeeded = 20;  // 2.0: deflate and folders
constexpr U16 versionMadeBy = 0x0B17;

constexpr U16 extendedTime = 0x5455;  // "UT"
constexpr U8 allThreeTimes = 7;

/// The fields one behind the other, each as wide as its type. The compiler checks that they fill the record.
template <std::size_t size, std::unsigned_integral... Fields>
constexpr std::array<U8, size> Record(Fields... fields) {
    static_assert((sizeof(Fields) + ...) == size);
    std::array<U8, size> bytes{};
    std::size_t at = 0;
    const auto put = [&](auto field) {
        for (std::size_t i = 0; i < sizeof(field); ++i) bytes[at++] = static_cast<U8>(field >> (8 * i));
    };
    (put(fields), ...);
    return bytes;
}

/// Takes a field from the front of the bytes, which must hold it.
template <std::unsigned_integral Field>
Field Take(std::span<const U8>& bytes) {
    std::uint64_t field = 0;
    for (std::size_t i = 0; i < sizeof(Field); ++i) field |= std::uint64_t{bytes[i]} << (8 * i);
    bytes = bytes.subspan(sizeof(Field));
    return static_cast<Field>(field);
}

/// The opposite of Record.
template <std::size_t size, std::unsigned_integral... Fields>
void Split(std::span<const U8, size> record, Fields&... fields) {
    static_assert((sizeof(Fields) + ...) == size);
    std::span<const U8> bytes = record;
    ((fields = Take<Fields>(bytes)), ...);
}

U16 NameLength(const ZipEntry& entry) { return static_cast<U16>(entry.name.size()); }

constexpr std::int64_t ticksPerSecond = 10000000;
constexpr std::uint64_t ticksTo1970 = 116444736000000000;

std::int64_t UnixSeconds(std::uint64_t fileTime) {
    return static_cast<std::int64_t>(fileTime - ticksTo1970) / ticksPerSecond;
}

}  // namespace

std::array<U8, localHeaderSize> BuildLocalHeader(const ZipEntry& entry) {
    return Record<localHeaderSize>(           //
        localSignature,                       //  0 signature
        versionNeeded,                        //  4 version needed
        entry.flags,                          //  6 flags
        static_cast<U16>(entry.method),       //  8 method
        DosTimestamp(entry.times.lastWrite),  // 10 DOS time and date
        entry.crc,                            // 14 CRC-32
        entry.compressedSize,                 // 18 compressed size
        entry.uncompressedSize,               // 22 uncompressed size
        NameLength(entry),                    // 26 name length
        U16{localExtraSize});                 // 28 extra field length
}

std::array<U8, localExtraSize> BuildLocalExtra(const ZipEntry& entry) {
    return Record<localExtraSize>(         //
        extendedTime,                      //  0 tag
        U16{localExtraSize - 4},           //  2 size of what follows
        allThreeTimes,                     //  4 flags
        UnixTime(entry.times.lastWrite),   //  5 last write
        UnixTime(entry.times.lastAccess),  //  9 last access
        UnixTime(entry.times.creation));   // 13 creation
}

std::array<U8, dataDescriptorSize> BuildDataDescriptor(const ZipEntry& entry) {
    return Record<dataDescriptorSize>(  //
        descriptorSignature,            //  0 signature
        entry.crc,                      //  4 CRC-32
        entry.compressedSize,           //  8 compressed size
        entry.uncompressedSize);        // 12 uncompressed size
}

std::array<U8, centralHeaderSize> BuildCentralHeader(const ZipEntry& entry) {
    return Record<centralHeaderSize>(         //
        centralSignature,                     //  0 signature
        versionMadeBy,                        //  4 version made by
        versionNeeded,                        //  6 version needed
        entry.flags,                          //  8 flags
        static_cast<U16>(entry.method),       // 10 method
        DosTimestamp(entry.times.lastWrite),  // 12 DOS time and date
        entry.crc,                            // 16 CRC-32
        entry.compressedSize,                 // 20 compressed size
        entry.uncompressedSize,               // 24 uncompressed size
        NameLength(entry),                    // 28 name length
        U16{centralExtraSize},                // 30 extra field length
        U16{0},                               // 32 comment length
        U16{0},                               // 34 disk number start
        U16{0},                               // 36 internal attributes
        entry.externalAttributes,             // 38 external attributes
        entry.localHeaderOffset);             // 42 offset of the local header
}

std::array<U8, centralExtraSize> BuildCentralExtra(const ZipEntry& entry) {
    return Record<centralExtraSize>(       //
        extendedTime,                      // 0 tag
        U16{centralExtraSize - 4},         // 2 size of what follows
        allThreeTimes,                     // 4 flags: what the local form holds
        UnixTime(entry.times.lastWrite));  // 5 last write
}

std::array<U8, endRecordSize> BuildEndRecord(const ZipDirectory& directory) {
    return Record<endRecordSize>(  //
        endSignature,              //  0 signature
        U16{0},                    //  4 disk number
        U16{0},                    //  6 disk with the central directory
        directory.entries,         //  8 entries on this disk
        directory.entries,         // 10 entries in total
        directory.size,            // 12 central directory size
        directory.offset,          // 16 central directory offset
        U16{0});                   // 20 comment length
}

bool ParseLocalHeader(std::span<const U8, localHeaderSize> bytes, ZipHeader& header) {
    U32 signature = 0;
    U16 version = 0;
    Split(bytes,                    //
          signature,                //  0 signature
          version,                  //  4 version needed
          header.flags,             //  6 flags
          header.method,            //  8 method
          header.dosTimestamp,      // 10 DOS time and date
          header.crc,               // 14 CRC-32
          header.compressedSize,    // 18 compressed size
          header.uncompressedSize,  // 22 uncompressed size
          header.nameLength,        // 26 name length
          header.extraLength);      // 28 extra field length
    return signature == localSignature;
}

bool ParseCentralHeader(std::span<const U8, centralHeaderSize> bytes, ZipCentralHeader& central) {
    U32 signature = 0;
    U16 version = 0;
    U16 internalAttributes = 0;
    Split(bytes,                            //
          signature,                        //  0 signature
          central.versionMadeBy,            //  4 version made by
          version,                          //  6 version needed
          central.header.flags,             //  8 flags
          central.header.method,            // 10 method
          central.header.dosTimestamp,      // 12 DOS time and date
          central.header.crc,               // 16 CRC-32
          central.header.compressedSize,    // 20 compressed size
          central.header.uncompressedSize,  // 24 uncompressed size
          central.header.nameLength,        // 28 name length
          central.header.extraLength,       // 30 extra field length
          central.commentLength,            // 32 comment length
          central.disk,                     // 34 disk number start
          internalAttributes,               // 36 internal attributes
          central.externalAttributes,       // 38 external attributes
          central.localHeaderOffset);       // 42 offset of the local header
    return signature == centralSignature;
}

bool ParseEndRecord(std::span<const U8, endRecordSize> bytes, ZipEndRecord& end) {
    U32 signature = 0;
    Split(bytes,                  //
          signature,              //  0 signature
          end.disk,               //  4 disk number
          end.directoryDisk,      //  6 disk with the central directory
          end.entriesOnDisk,      //  8 entries on this disk
          end.directory.entries,  // 10 entries in total
          end.directory.size,     // 12 central directory size
          end.directory.offset,   // 16 central directory offset
          end.commentLength);     // 20 comment length
    return signature == endSignature;
}

bool IsEnd64Locator(std::span<const U8, end64LocatorSize> bytes) {
    std::span<const U8> start = bytes;
    return Take<U32>(start) == locatorSignature;
}

namespace {

/// Reads the content of a "UT" field: flags, then the times that they announce.
void ParseTimes(std::span<const U8> field, ZipTimes& times) {
    if (field.empty()) return;
    const U8 flags = Take<U8>(field);
    std::uint64_t* const all[] = {&times.lastWrite, &times.lastAccess, &times.creation};
    for (unsigned bit = 0; bit < std::size(all); ++bit) {
        if ((flags >> bit & 1) == 0) continue;
        if (field.size() < sizeof(U32)) return;
        // Unsigned, so that the low half of a time after 2038 stays what it was.
        *all[bit] = ticksTo1970 + std::uint64_t{Take<U32>(field)} * ticksPerSecond;
    }
}

}  // namespace

void ParseExtendedTimes(std::span<const U8> extra, ZipTimes& times) {
    while (extra.size() >= 4) {
        const U16 tag = Take<U16>(extra);
        const std::size_t size = Take<U16>(extra);
        const std::span<const U8> field = extra.first(std::min(size, extra.size()));
        if (tag == extendedTime) ParseTimes(field, times);
        extra = extra.subspan(field.size());
    }
}

U32 DosTimestamp(std::uint64_t fileTime) {
    using namespace std::chrono;
    const sys_seconds moment{seconds{UnixSeconds(fileTime)}};
    const sys_days midnight = floor<days>(moment);
    const year_month_day day{midnight};
    const hh_mm_ss clock{moment - midnight};

    const auto year = static_cast<U32>(static_cast<int>(day.year()) - 1980);
    const U32 date = year * 512 + static_cast<unsigned>(day.month()) * 32 + static_cast<unsigned>(day.day());
    // The seconds field does not hold half of the seconds, as is usual: the server has always been sent it this way.
    const auto second = static_cast<U32>(clock.seconds().count()) * 2 & 31U;
    const U32 time = static_cast<U32>(clock.hours().count()) * 2048 + static_cast<U32>(clock.minutes().count()) * 32;
    return date << 16 | time | second;
}

platform::LocalTime LocalTimeOfDos(U32 dosTimestamp) {
    const auto part = [&](unsigned shift, unsigned bits) {
        return static_cast<int>(dosTimestamp >> shift & ((1U << bits) - 1));
    };
    return {.year = 1980 + part(25, 7),
            .month = std::clamp(part(21, 4), 1, 12),
            .day = std::max(part(16, 5), 1),
            .hour = std::min(part(11, 5), 23),
            .minute = std::min(part(5, 6), 59),
            .second = std::min(part(0, 5) * 2, 59)};
}

U32 UnixTime(std::uint64_t fileTime) { return static_cast<U32>(UnixSeconds(fileTime)); }

std::uint64_t FileTimeOf(const platform::LocalTime& time) {
    using namespace std::chrono;
    const sys_days day =
        year{time.year} / month{static_cast<unsigned>(time.month)} / std::chrono::day{static_cast<unsigned>(time.day)};
    const milliseconds moment = day.time_since_epoch() + hours{time.hour} + minutes{time.minute} +
                                seconds{time.second} + milliseconds{time.millisecond};
    return FileTimeOfMilliseconds(moment.count());
}

std::uint64_t FileTimeOfMilliseconds(std::int64_t millisecondsSince1970) {
    return static_cast<std::uint64_t>(millisecondsSince1970 * (ticksPerSecond / 1000)) + ticksTo1970;
}

}  // namespace kv

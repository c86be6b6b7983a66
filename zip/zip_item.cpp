#include "zip/zip_item.h"

#include "platform/clock.h"
#include "zip/zip_item_name.h"

namespace kv {

namespace {

namespace attribute = platform::file_attribute;

constexpr std::uint32_t dosAttributes =
    attribute::readOnly | attribute::hidden | attribute::system | attribute::directory | attribute::archive;

// The high word of the external attributes is a Unix mode.
constexpr std::uint32_t modeDirectory = 0x40000000;
constexpr std::uint32_t modeOwnerWrite = 0x800000;

/// MS-DOS, Macintosh, NTFS and VFAT, as PKWARE and Info-ZIP number the makers.
bool WritesDosAttributes(std::uint16_t versionMadeBy) {
    const int host = versionMadeBy >> 8;
    return host == 0 || host == 7 || host == 11 || host == 14;
}

void FillMissing(std::uint64_t& time, std::uint64_t other) {
    if (time == 0) time = other;
}

void FillMissing(ZipTimes& times, const ZipTimes& others) {
    FillMissing(times.lastWrite, others.lastWrite);
    FillMissing(times.lastAccess, others.lastAccess);
    FillMissing(times.creation, others.creation);
}

ZipTimes ItemTimes(const ZipCentralEntry& entry, const ZipLocalEntry* local) {
    ZipTimes times = local != nullptr ? local->times : ZipTimes{};
    FillMissing(times, entry.times);
    if (times.lastWrite == 0 || times.lastAccess == 0 || times.creation == 0) {
        const platform::LocalTime dosTime = LocalTimeOfDos(entry.central.header.dosTimestamp);
        const std::uint64_t time = FileTimeOfMilliseconds(platform::Clock().FromLocalTime(dosTime));
        FillMissing(times, {time, time, time});
    }
    return times;
}

}  // namespace

std::uint32_t ItemAttributes(const ZipCentralHeader& central) {
    const std::uint32_t external = central.externalAttributes;
    if (WritesDosAttributes(central.versionMadeBy)) return external & dosAttributes;
    std::uint32_t attributes = attribute::archive;
    if ((external & modeDirectory) != 0) attributes |= attribute::directory;
    if ((external & modeOwnerWrite) == 0) attributes |= attribute::readOnly;
    return attributes;
}

ZipResult DescribeItem(const ZipCentralEntry& entry, const ZipLocalEntry* local, ZipItem& item) {
    item.name = CleansedName(entry.name);
    if (item.name.size() >= maxItemNameLength) return zip_result::corrupt;
    item.attr = ItemAttributes(entry.central);
    const ZipTimes times = ItemTimes(entry, local);
    item.atime = times.lastAccess;
    item.ctime = times.creation;
    item.mtime = times.lastWrite;
    item.compressedSize = entry.central.header.compressedSize;
    item.uncompressedSize = entry.central.header.uncompressedSize;
    return zip_result::ok;
}

}  // namespace kv

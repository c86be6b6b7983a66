#include "zip/zip_source.h"

#include <algorithm>

#include "foundation/system_error.h"
#include "platform/clock.h"

namespace kv {

namespace {

// The high word of the external attributes is a Unix mode.
constexpr std::uint32_t modeFile = 0x80000000;
constexpr std::uint32_t modeDirectory = 0x40000000;
constexpr std::uint32_t modeOwnerRead = 0x1000000;
constexpr std::uint32_t modeOwnerWrite = 0x800000;
constexpr std::uint32_t modeOwnerExecute = 0x400000;
constexpr std::uint32_t folderAttributes = 0x41C00010;

// FILE_ATTRIBUTE bits.
constexpr std::uint32_t attributeReadOnly = 0x1;
constexpr std::uint32_t attributeDirectory = 0x10;
constexpr std::uint32_t keptAttributes = 0x37;  // read-only, hidden, system, directory, archive

std::uint32_t Number(std::span<const std::uint8_t> bytes) {
    std::uint32_t number = 0;
    for (std::size_t i = bytes.size(); i-- > 0;) number = number << 8 | bytes[i];
    return number;
}

/// Four bytes at an offset, from the first read when they are in it. The file is then back where it was.
std::optional<std::uint32_t> NumberAt(const ZipSource& source, std::uint64_t offset) {
    const std::span<const std::uint8_t> first = source.pending;
    if (offset + 4 <= first.size()) return Number(first.subspan(static_cast<std::size_t>(offset), 4));
    const platform::FileOperations& files = platform::Files();
    std::array<std::uint8_t, 4> bytes{};
    std::size_t read = 0;
    const bool good = files.SetFilePointerEx(source.file, offset) == platform::error::success &&
                      files.ReadFile(source.file, bytes.data(), bytes.size(), read) == platform::error::success;
    files.SetFilePointerEx(source.file, first.size());
    if (!good || read != bytes.size()) return std::nullopt;
    return Number(bytes);
}

/// Checks for a program file by its first bytes. No real program file has this magic number, so that hardly any file
/// passes; archives have always been written this way.
bool IsExecutable(const ZipSource& source) {
    constexpr std::size_t smallest = 40;
    const std::span<const std::uint8_t> first = source.pending;
    if (*source.size <= smallest || first.size() < smallest || Number(first.first(2)) != 0x54AD) return false;
    const std::uint64_t headerOffset = Number(first.subspan(36, 4));
    if (headerOffset + 52 >= *source.size) return false;
    const std::optional<std::uint32_t> signature = NumberAt(source, headerOffset);
    return signature == 0x5A4DU || signature == 0x454EU || signature == 0x454CU || signature == 0x4550U;
}

std::uint32_t FileAttributes(const ZipSource& source, std::uint32_t attributes) {
    std::uint32_t external = attributes & keptAttributes;
    external |= (attributes & attributeDirectory) != 0 ? modeDirectory : modeFile;
    external |= modeOwnerRead;
    if ((attributes & attributeReadOnly) == 0) external |= modeOwnerWrite;
    if (IsExecutable(source)) external |= modeOwnerExecute;
    return external;
}

ZipTimes LocalClockTimes() {
    const platform::ClockOperations& clock = platform::Clock();
    const std::uint64_t now = FileTimeOf(clock.ToLocalTime(clock.GetSystemTimeMilliseconds()));
    return {now, now, now};
}

/// The code for a failed call on a source; the log gets the system's error.
ZipResult SourceFailure(platform::Error error, ZipResult result) {
    LogLastSystemError(error);
    return result;
}

ZipResult ReadChunk(platform::FileHandle file, ReadBuffer& buffer, std::span<const std::uint8_t>& bytes) {
    std::size_t read = 0;
    const platform::Error error = platform::Files().ReadFile(file, buffer.data(), buffer.size(), read);
    if (error != platform::error::success) return SourceFailure(error, zip_result::readFailed);
    bytes = std::span(buffer).first(read);
    return zip_result::ok;
}

}  // namespace

ZipResult OpenHandleSource(platform::FileHandle file, bool fromFile, ReadBuffer& buffer, ZipSource& source) {
    const platform::FileOperations& files = platform::Files();
    source.file = file;
    platform::FileInformation information;
    platform::Error error = platform::error::success;
    if (fromFile) error = files.GetFileInformationByHandle(file, information);
    if (error != platform::error::success) return SourceFailure(error, zip_result::noFile);
    if (const ZipResult result = ReadChunk(file, buffer, source.pending); result != zip_result::ok) return result;
    if (!fromFile) {
        source.times = LocalClockTimes();
        source.externalAttributes = modeFile;
        return zip_result::ok;
    }
    source.size = information.size;
    source.times = {information.lastWriteTime, information.lastAccessTime, information.creationTime};
    source.externalAttributes = FileAttributes(source, information.attributes);
    return zip_result::ok;
}

ZipResult OpenFileSource(std::u16string_view path, bool fromFile, ReadBuffer& buffer, ZipSource& source) {
    const platform::Error error = source.ownFile.Open(path, platform::FileAccess::read, platform::FileShare::read,
                                                      platform::FileDisposition::openExisting);
    if (error == platform::error::success) return OpenHandleSource(source.ownFile.handle, fromFile, buffer, source);
    source.ownFile.handle = 0;
    return SourceFailure(error, zip_result::noFile);
}

void OpenMemorySource(std::span<const std::uint8_t> block, ZipSource& source) {
    source.pending = block;
    source.size = block.size();
    source.times = LocalClockTimes();
    source.externalAttributes = modeFile;
}

void OpenFolderSource(ZipSource& source) {
    source.size = 0;
    source.times = LocalClockTimes();
    source.externalAttributes = folderAttributes;
}

ZipResult ReadSource(ZipSource& source, ReadBuffer& buffer, std::span<const std::uint8_t>& bytes) {
    if (source.pending.empty() && source.file != 0) return ReadChunk(source.file, buffer, bytes);
    bytes = source.pending.first(std::min(source.pending.size(), readSize));
    source.pending = source.pending.subspan(bytes.size());
    return zip_result::ok;
}

}  // namespace kv

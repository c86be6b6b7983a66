#include "zip/archive_output.h"

#include <algorithm>

#include "foundation/system_error.h"
#include "zip/zip_records.h"

namespace kv {

namespace {

constexpr std::size_t bufferSize = 65536;
constexpr std::size_t roomForEntry = bufferSize / 2;  // at least this much is free for a new one

ZipResult WriteResult(platform::Error error) {
    if (error == platform::error::success) return zip_result::ok;
    LogLastSystemError(error);
    return zip_result::writeFailed;
}

/// Writes out the buffer.
ZipResult FlushOutput(ArchiveOutput& output) {
    if (output.used == 0 || output.isMemory()) return zip_result::ok;
    const ZipResult result = WriteResult(platform::Files().WriteFile(output.file, output.buffer.data(), output.used));
    if (result != zip_result::ok) return result;
    output.written += output.used;
    output.used = 0;
    return zip_result::ok;
}

}  // namespace

ZipResult FlushToDisk(ArchiveOutput& output) {
    if (const ZipResult result = FlushOutput(output); result != zip_result::ok) return result;
    if (output.ownFile.handle == 0) return zip_result::ok;
    return WriteResult(platform::Files().FlushFileBuffers(output.file));
}

ZipResult MakeRoomForEntry(ArchiveOutput& output) {
    return output.used > roomForEntry ? FlushOutput(output) : zip_result::ok;
}

ZipResult FreeSpace(ArchiveOutput& output, std::span<std::uint8_t>& space) {
    if (output.buffer.empty() && !output.isMemory()) {
        output.owned = std::make_unique<std::uint8_t[]>(bufferSize);
        output.buffer = {output.owned.get(), bufferSize};
    }
    if (output.used == output.buffer.size()) {
        if (output.isMemory()) return zip_result::memoryTooSmall;
        if (const ZipResult result = FlushOutput(output); result != zip_result::ok) return result;
    }
    const std::uint64_t limit = maxArchiveSize - std::min(maxArchiveSize, output.position());
    if (limit == 0) return zip_result::writeFailed;
    space = output.buffer.subspan(output.used);
    space = space.first(static_cast<std::size_t>(std::min<std::uint64_t>(space.size(), limit)));
    return zip_result::ok;
}

void CommitSpace(ArchiveOutput& output, std::size_t size) {
    if (output.cipher) Encrypt(*output.cipher, output.buffer.subspan(output.used, size));
    output.used += size;
}

ZipResult Append(ArchiveOutput& output, std::span<const std::uint8_t> bytes) {
    while (!bytes.empty()) {
        std::span<std::uint8_t> space;
        if (const ZipResult result = FreeSpace(output, space); result != zip_result::ok) return result;
        const std::size_t size = std::min(space.size(), bytes.size());
        std::copy_n(bytes.begin(), size, space.begin());
        CommitSpace(output, size);
        bytes = bytes.subspan(size);
    }
    return zip_result::ok;
}

ZipResult Rewrite(ArchiveOutput& output, std::uint64_t offset, std::span<const std::uint8_t> bytes) {
    if (offset >= output.written) {
        std::copy(bytes.begin(), bytes.end(),
                  output.buffer.begin() + static_cast<std::ptrdiff_t>(offset - output.written));
        return zip_result::ok;
    }
    if (const ZipResult result = FlushOutput(output); result != zip_result::ok) return result;
    const platform::FileOperations& files = platform::Files();
    platform::Error error = files.SetFilePointerEx(output.file, offset);
    if (error == platform::error::success) error = files.WriteFile(output.file, bytes.data(), bytes.size());
    if (error == platform::error::success) error = files.SetFilePointerEx(output.file, output.written);
    return WriteResult(error);
}

}  // namespace kv

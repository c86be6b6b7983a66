#include "zip/archive_output.h"

#include <algorithm>

#include "foundation/system_error.h"
#include "zip/zip_records.h"

namespace kv {

namespace {

constexpr std::size_t bufferSize = 65536;
constexpr std::size_t roomForEntry = bufferSize / 2;

ZipResult WriteResult(platform::Error error) {
    if (error == platform::error::success) return zip_result::ok;
    LogLastSystemError(error);
    return zip_result::writeFailed;
}

}  // namespace

ZipResult FlushOutput(ArchiveOutput& output) {
    if (output.used == 0) return zip_result::ok;
    const ZipResult result =
        WriteResult(platform::Files().WriteFile(output.file.handle, output.buffer.data(), output.used));
    if (result != zip_result::ok) return result;
    output.written += output.used;
    output.used = 0;
    return zip_result::ok;
}

ZipResult FlushToDisk(ArchiveOutput& output) {
    if (const ZipResult result = FlushOutput(output); result != zip_result::ok) return result;
    return WriteResult(platform::Files().FlushFileBuffers(output.file.handle));
}

ZipResult MakeRoomForEntry(ArchiveOutput& output) {
    return output.used > bufferSize - roomForEntry ? FlushOutput(output) : zip_result::ok;
}

ZipResult FreeSpace(ArchiveOutput& output, std::span<std::uint8_t>& space) {
    if (output.buffer.empty()) output.buffer.resize(bufferSize);
    if (output.used == bufferSize) {
        if (const ZipResult result = FlushOutput(output); result != zip_result::ok) return result;
    }
    const std::uint64_t limit = maxArchiveSize - std::min(maxArchiveSize, output.position());
    if (limit == 0) return zip_result::writeFailed;
    const std::size_t size = bufferSize - output.used;
    space = std::span(output.buffer).subspan(output.used, std::min<std::uint64_t>(size, limit));
    return zip_result::ok;
}

void CommitSpace(ArchiveOutput& output, std::size_t size) { output.used += size; }

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
    platform::Error error = files.SetFilePointerEx(output.file.handle, offset);
    if (error == platform::error::success) error = files.WriteFile(output.file.handle, bytes.data(), bytes.size());
    if (error == platform::error::success) error = files.SetFilePointerEx(output.file.handle, output.written);
    return WriteResult(error);
}

}  // namespace kv

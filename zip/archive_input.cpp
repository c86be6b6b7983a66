#include "zip/archive_input.h"

#include "foundation/system_error.h"

namespace kv {

namespace {

using platform::Error;
namespace error = platform::error;

ZipResult Failure(Error code, ZipResult result) {
    LogLastSystemError(code);
    return result;
}

/// Fills the window from an offset on, as far as the file goes.
Error Refill(platform::FileHandle file, ArchiveWindow& window, std::uint64_t offset) {
    if (window.buffer.empty()) window.buffer.resize(windowSize);
    window.start = offset;
    window.used = 0;
    Error result = platform::Files().SetFilePointerEx(file, offset);
    while (result == error::success && window.used < windowSize) {
        std::size_t read = 0;
        result = platform::Files().ReadFile(file, window.buffer.data() + window.used, windowSize - window.used, read);
        if (read == 0) break;
        window.used += read;
    }
    return result;
}

}  // namespace

ZipResult OpenArchivePath(std::u16string_view path, ArchiveInput& input) {
    const Error result = input.ownFile.Open(path, platform::FileAccess::read, platform::FileShare::read,
                                            platform::FileDisposition::openExisting);
    return result == error::success ? OpenArchiveHandle(input.ownFile.handle, input)
                                    : Failure(result, zip_result::noFile);
}

ZipResult OpenArchiveHandle(platform::FileHandle file, ArchiveInput& input) {
    input.file = file;
    std::uint64_t position = 0;
    if (const Error result = platform::Files().GetFilePointer(file, position); result != error::success) {
        return Failure(result, zip_result::unseekable);
    }
    const Error result = platform::Files().GetFileSizeEx(file, input.size);
    return result == error::success ? zip_result::ok : Failure(result, zip_result::readFailed);
}

ZipResult ViewArchive(const ArchiveInput& input, ArchiveWindow& window, std::uint64_t offset, std::size_t atLeast,
                      std::span<const std::uint8_t>& bytes) {
    if (offset > input.size || input.size - offset < atLeast) return zip_result::corrupt;
    if (input.file == 0) {
        bytes = input.memory.subspan(static_cast<std::size_t>(offset));
        return zip_result::ok;
    }
    if (offset < window.start || offset + atLeast > window.start + window.used) {
        const Error result = Refill(input.file, window, offset);
        if (result != error::success) return Failure(result, zip_result::readFailed);
        if (window.used < atLeast) return zip_result::readFailed;  // the file has become shorter
    }
    bytes = std::span(window.buffer).first(window.used).subspan(static_cast<std::size_t>(offset - window.start));
    return zip_result::ok;
}

}  // namespace kv

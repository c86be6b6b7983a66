#include "zip/zip_reader.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <memory>
#include <new>
#include <optional>
#include <string>

#include "foundation/file_utils.h"
#include "foundation/log.h"
#include "foundation/system_error.h"
#include "foundation/text.h"
#include "zip/archive_input.h"
#include "zip/item_stream.h"
#include "zip/unzip_target.h"
#include "zip/zip_directory.h"
#include "zip/zip_item.h"
#include "zip/zip_item_name.h"

namespace kv {

namespace {

constexpr std::int32_t noIndex = -1;
constexpr std::size_t readSize = 16384;  // bytes unpacked at a time

/// What is known of the item that was last asked for.
struct KnownItem {
    std::int32_t index = noIndex;
    ZipCentralEntry entry;
    ZipLocalEntry local;
    ZipResult localResult = zip_result::ok;
    ZipItem item;
};

struct ZipReader {
    ArchiveInput input;
    ArchiveWindow directoryWindow;
    ZipDirectoryIndex directory;
    std::optional<std::string> password;
    std::u16string base;      // with a separator behind it
    bool baseExists = false;  // has been checked or made
    KnownItem known;
    std::int32_t openIndex = noIndex;  // of the item that the stream is in
    ItemStream stream;
    std::unique_ptr<std::array<std::uint8_t, readSize>> buffer;  // made at first use
};

std::atomic<ZipResult> lastReaderResult{zip_result::ok};

ZipResult Remember(ZipResult result) {
    lastReaderResult = result;
    return result;
}

/// The reader behind a handle; null with the reason when there is none.
ZipReader* ReaderOf(ZipHandle zip, ZipResult& result) { return ObjectOf<ZipReader>(zip, ZipKind::reader, result); }

/// Runs the steps of a public routine on the reader behind a handle.
template <class Steps>
ZipResult WithReader(ZipHandle zip, const Steps& steps) {
    ZipResult result = zip_result::ok;
    ZipReader* reader = ReaderOf(zip, result);
    if (reader == nullptr) return Remember(result);
    try {
        result = steps(*reader);
    } catch (const std::bad_alloc&) {
        result = zip_result::noMemory;
    }
    return Remember(result);
}

std::int32_t ItemCount(const ZipReader& reader) {
    return static_cast<std::int32_t>(reader.directory.centralOffsets.size());
}

std::u16string WithSeparator(std::u16string directory) {
    if (!directory.empty() && directory.back() != u'\\' && directory.back() != u'/') directory += u'\\';
    return directory;
}

/// `open` makes the input ready.
template <class Open>
ZipHandle OpenArchive(const char* password, const Open& open) {
    Log4("\t Inside OpenZip() \n");
    try {
        auto reader = std::make_unique<ZipReader>();
        ZipResult result = open(reader->input);
        if (result == zip_result::ok) result = ReadDirectory(reader->input, reader->directoryWindow, reader->directory);
        if (Remember(result) != zip_result::ok) return nullptr;
        reader->stream.input = &reader->input;
        if (password != nullptr) reader->password = password;
        std::u16string workingDirectory;
        if (platform::Files().wgetcwd(workingDirectory) == 0) reader->base = WithSeparator(workingDirectory);
        reader->baseExists = true;
        auto* handle = new ZipHandleRecord{ZipKind::reader, reader.get()};
        reader.release();  // the handle owns it now
        return handle;
    } catch (const std::bad_alloc&) {
        Remember(zip_result::noMemory);
        return nullptr;
    }
}

/// Makes an item the known one. Whether its local header can be read is noted beside it: the directory alone describes
/// it.
ZipResult GetToKnow(ZipReader& reader, std::int32_t index) {
    KnownItem& known = reader.known;
    if (index == known.index) return zip_result::ok;
    if (index < 0 || index >= ItemCount(reader)) return zip_result::badArguments;
    known.index = noIndex;
    ZipResult result = ReadCentralEntry(reader.input, reader.directoryWindow, reader.directory,
                                        static_cast<std::size_t>(index), known.entry);
    if (result != zip_result::ok) return result;
    known.localResult = ReadLocalEntry(reader.input, reader.stream.window, reader.directory, known.entry, known.local);
    result = DescribeItem(known.entry, known.localResult == zip_result::ok ? &known.local : nullptr, known.item);
    if (result != zip_result::ok) return result;
    known.item.index = index;
    known.index = index;
    return zip_result::ok;
}

/// Closes the item left open and opens another.
ZipResult OpenItem(ZipReader& reader, std::int32_t index) {
    reader.openIndex = noIndex;
    ZipResult result = GetToKnow(reader, index);
    if (result == zip_result::ok) result = reader.known.localResult;
    if (result == zip_result::ok) {
        result = StartItem(reader.stream, reader.known.entry, reader.known.local, reader.password);
    }
    if (result == zip_result::ok) reader.openIndex = index;
    return result;
}

/// Unpacks the open item to a file, and closes it.
ZipResult WriteItem(ZipReader& reader, platform::FileHandle file) {
    if (reader.buffer == nullptr) reader.buffer = std::make_unique<std::array<std::uint8_t, readSize>>();
    reader.openIndex = noIndex;
    do {
        std::size_t count = 0;
        if (const ZipResult result = ReadItem(reader.stream, *reader.buffer, count); result != zip_result::ok) {
            return result;
        }
        if (count == 0) break;
        const platform::Error error = platform::Files().WriteFile(file, reader.buffer->data(), count);
        if (error != platform::error::success) {
            LogLastSystemError(error);
            return zip_result::writeFailed;
        }
    } while (reader.stream.outputLeft > 0);
    return zip_result::ok;
}

/// Makes the directories on the way to a file, or a whole path of directories.
ZipResult PrepareDirectories(ZipReader& reader, std::u16string_view path, bool isAbsolute) {
    if (isAbsolute) return MakeDirectories(path);
    if (!reader.baseExists) {
        if (const ZipResult result = MakeDirectories(reader.base); result != zip_result::ok) return result;
        reader.baseExists = true;
    }
    return MakeDirectoriesBelow(reader.base, path);
}

ZipResult UnpackFile(ZipReader& reader, std::u16string_view path, bool isAbsolute) {
    ZipResult result = OpenItem(reader, reader.known.index);
    if (result == zip_result::ok) result = PrepareDirectories(reader, DirectoryOf(path), isAbsolute);
    if (result != zip_result::ok) return result;
    UnzipTarget target;
    result = CreateTarget(isAbsolute ? std::u16string(path) : reader.base + std::u16string(path), target);
    if (result == zip_result::ok) result = WriteItem(reader, target.file.handle);
    return result == zip_result::ok ? CompleteTarget(target, reader.known.item) : result;
}

/// Some archivers mark a directory by its name alone.
bool IsDirectoryItem(const ZipItem& item, std::u16string_view path) {
    return (item.attr & platform::file_attribute::directory) != 0 ||
           (item.uncompressedSize == 0 && DirectoryOf(path).size() == path.size());
}

ZipResult Unpack(ZipReader& reader, std::int32_t index, std::u16string_view path) {
    reader.openIndex = noIndex;
    if (index >= ItemCount(reader)) return zip_result::ok;
    if (const ZipResult result = GetToKnow(reader, index); result != zip_result::ok) return result;
    const bool isAbsolute = IsAbsoluteTarget(path);
    if (!isAbsolute && !StaysBelowDirectory(path)) {
        Log1("\t UnzipItem :: [%s] would leave the base directory\n", path);
        return zip_result::badArguments;
    }
    return IsDirectoryItem(reader.known.item, path) ? PrepareDirectories(reader, path, isAbsolute)
                                                    : UnpackFile(reader, path, isAbsolute);
}

ZipResult UnpackToHandle(ZipReader& reader, std::int32_t index, platform::FileHandle file) {
    reader.openIndex = noIndex;
    if (index >= ItemCount(reader)) return zip_result::ok;
    if (file == 0) return zip_result::badArguments;
    const ZipResult result = OpenItem(reader, index);
    return result == zip_result::ok ? WriteItem(reader, file) : result;
}

ZipResult UnpackToMemory(ZipReader& reader, std::int32_t index, std::span<std::uint8_t> block) {
    if (index >= ItemCount(reader)) {
        reader.openIndex = noIndex;
        return zip_result::ok;
    }
    if (index != reader.openIndex || index < 0) {
        if (const ZipResult result = OpenItem(reader, index); result != zip_result::ok) return result;
    }
    const std::size_t size = std::min<std::size_t>(block.size(), reader.stream.outputLeft);
    std::size_t count = 0;
    const ZipResult result = ReadItem(reader.stream, block.first(size), count);
    if (result == zip_result::ok && reader.stream.outputLeft > 0) return zip_result::moreData;
    reader.openIndex = noIndex;
    return result;
}

bool HasName(const ZipCentralEntry& entry, std::u16string_view name, bool ignoreCase) {
    const std::u16string cleansed = CleansedName(entry.name);
    return ignoreCase ? CompareIgnoreCase(cleansed, name) == 0 : cleansed == name;
}

ZipResult Find(ZipReader& reader, std::u16string_view name, bool ignoreCase, std::int32_t& index) {
    ZipCentralEntry entry;
    for (std::int32_t i = 0; i < ItemCount(reader); ++i) {
        const ZipResult result = ReadCentralEntry(reader.input, reader.directoryWindow, reader.directory,
                                                  static_cast<std::size_t>(i), entry);
        if (result != zip_result::ok) return result;
        if (!HasName(entry, name, ignoreCase)) continue;
        index = i;
        return zip_result::ok;
    }
    return zip_result::notFound;
}

}  // namespace

ZipHandle OpenZip(std::u16string_view path, const char* password) {
    return OpenArchive(password, [&](ArchiveInput& input) { return OpenArchivePath(path, input); });
}

ZipHandle OpenZipHandle(platform::FileHandle file, const char* password) {
    return OpenArchive(password, [&](ArchiveInput& input) {
        return file == 0 ? zip_result::badArguments : OpenArchiveHandle(file, input);
    });
}

ZipHandle OpenZipMemory(const void* block, std::size_t size, const char* password) {
    return OpenArchive(password, [&](ArchiveInput& input) {
        if (block == nullptr) return zip_result::badArguments;
        input.memory = {static_cast<const std::uint8_t*>(block), size};
        input.size = size;
        return zip_result::ok;
    });
}

ZipResult SetUnzipBaseDir(ZipHandle zip, std::u16string_view directory) {
    Log4("\t Inside SetUnzipBaseDir() \n");
    return WithReader(zip, [&](ZipReader& reader) {
        if (directory.empty()) return zip_result::badArguments;
        reader.base = WithSeparator(std::u16string(directory));
        reader.baseExists = false;
        return zip_result::ok;
    });
}

ZipResult GetZipItem(ZipHandle zip, std::int32_t index, ZipItem& item) {
    Log4("\t Inside GetZipItem() \n");
    item = {};
    return WithReader(zip, [&](ZipReader& reader) {
        if (index == noIndex) {
            item.index = ItemCount(reader);
            return zip_result::ok;
        }
        const ZipResult result = GetToKnow(reader, index);
        if (result == zip_result::ok) item = reader.known.item;
        return result;
    });
}

ZipResult FindZipItem(ZipHandle zip, std::u16string_view name, bool ignoreCase, std::int32_t& index, ZipItem& item) {
    Log4("\t Inside FindZipItem() \n");
    index = noIndex;
    item = {};
    return WithReader(zip, [&](ZipReader& reader) {
        std::int32_t found = noIndex;
        ZipResult result = Find(reader, name, ignoreCase, found);
        if (result == zip_result::ok) result = GetToKnow(reader, found);
        if (result != zip_result::ok) return result;
        item = reader.known.item;
        index = found;
        return result;
    });
}

ZipResult UnzipItem(ZipHandle zip, std::int32_t index, std::u16string_view path) {
    Log4("\t Inside UnzipItem() \n");
    return WithReader(zip, [&](ZipReader& reader) { return Unpack(reader, index, path); });
}

ZipResult UnzipItemToHandle(ZipHandle zip, std::int32_t index, platform::FileHandle file) {
    Log4("\t Inside UnzipItemToHandle() \n");
    return WithReader(zip, [&](ZipReader& reader) { return UnpackToHandle(reader, index, file); });
}

ZipResult UnzipItemToMemory(ZipHandle zip, std::int32_t index, void* block, std::size_t size) {
    Log4("\t Inside UnzipItemToMemory() \n");
    return WithReader(zip, [&](ZipReader& reader) {
        if (block == nullptr && size > 0) return zip_result::badArguments;
        return UnpackToMemory(reader, index, {static_cast<std::uint8_t*>(block), size});
    });
}

ZipResult CloseUnzip(ZipHandle zip) {
    Log4("\t Inside CloseUnzip() \n");
    ZipResult result = zip_result::ok;
    const std::unique_ptr<ZipReader> reader(ReaderOf(zip, result));
    if (reader != nullptr) delete zip;
    return Remember(result);
}

ZipResult LastZipReaderResult() { return lastReaderResult; }

std::size_t FormatZipMessage(ZipResult code, char16_t* buffer, std::size_t size) {
    constexpr ZipResult lastResult = 1;
    const std::string_view text = ZipResultText(code == lastResult ? LastZipReaderResult() : code);
    if (buffer != nullptr && size > 0) {
        const std::size_t copied = std::min(text.size(), size - 1);
        std::copy_n(text.begin(), copied, buffer);
        buffer[copied] = u'\0';
    }
    return text.size();
}

}  // namespace kv

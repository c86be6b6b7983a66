#include "lab/store/archive.h"

#include <array>
#include <memory>
#include <zip.h>

#include "lab/store/record_text.h"
#include "platform/owned_handle.h"

namespace kv::lab {

namespace {

using platform::ReleasedBy;
using Archive = std::unique_ptr<zip_t, ReleasedBy<zip_discard>>;
using OpenEntry = std::unique_ptr<zip_file_t, ReleasedBy<zip_fclose>>;
using Source = std::unique_ptr<zip_source_t, ReleasedBy<zip_source_free>>;

Archive OpenArchive(std::string_view bytes) {
    zip_error_t error;
    zip_error_init(&error);
    zip_source_t* source = zip_source_buffer_create(bytes.data(), bytes.size(), 0, &error);
    zip_t* archive = source ? zip_open_from_source(source, ZIP_RDONLY | ZIP_CHECKCONS, &error) : nullptr;
    const std::string text = archive ? "" : zip_error_strerror(&error);
    if (source && !archive) zip_source_free(source);
    zip_error_fini(&error);
    if (!archive) throw MalformedArchive("the body is not a good zip: " + text);
    return Archive(archive);
}

/// Appends an entry's content. MalformedArchive if it has more than `limit` bytes.
void ReadEntry(zip_t* archive, zip_uint64_t index, const std::string& name, std::size_t limit, std::string& content) {
    const OpenEntry entry(zip_fopen_index(archive, index, 0));
    if (!entry) throw MalformedArchive("the entry " + name + " cannot be opened: " + zip_strerror(archive));
    std::array<char, 65536> buffer;
    while (true) {
        const zip_int64_t size = zip_fread(entry.get(), buffer.data(), buffer.size());
        if (size < 0)
            throw MalformedArchive("the entry " + name + " cannot be read: " + zip_file_strerror(entry.get()));
        if (size == 0) return;
        content.append(buffer.data(), static_cast<std::size_t>(size));
        if (content.size() > limit) throw MalformedArchive("the entry " + name + " unpacks to too much");
    }
}

void Require(bool success) {
    if (!success) throw std::runtime_error("libzip cannot make a zip");
}

std::string ContentOf(zip_source_t* source) {
    zip_stat_t facts;
    Require(zip_source_stat(source, &facts) == 0 && zip_source_open(source) == 0);
    std::string bytes(facts.size, '\0');
    const zip_int64_t size = zip_source_read(source, bytes.data(), bytes.size());
    zip_source_close(source);
    Require(size == static_cast<zip_int64_t>(bytes.size()));
    return bytes;
}

}  // namespace

void ReadArchive(std::string_view bytes, const EntrySink& sink) {
    const Archive archive = OpenArchive(bytes);
    std::size_t left = maxArchiveBytes;
    const zip_int64_t count = zip_get_num_entries(archive.get(), 0);
    for (zip_uint64_t index = 0; index < static_cast<zip_uint64_t>(count); ++index) {
        const char* rawName = zip_get_name(archive.get(), index, ZIP_FL_ENC_GUESS);
        if (!rawName) throw MalformedArchive("an entry has no readable name");
        const std::string name = CleanUtf8(rawName);
        std::string content;
        ReadEntry(archive.get(), index, OneLine(name), std::min(left, maxEntryBytes), content);
        left -= content.size();
        if (!name.ends_with('/')) sink(name, content);
    }
}

std::string MakeArchive(const ArchiveFiles& files) {
    const Source target(zip_source_buffer_create(nullptr, 0, 0, nullptr));
    Require(target != nullptr);
    Archive archive(zip_open_from_source(target.get(), ZIP_TRUNCATE, nullptr));
    Require(archive != nullptr);
    zip_source_keep(target.get());  // the archive owns a reference now, and so do we
    for (const auto& [name, content] : files) {
        Source entry(zip_source_buffer(archive.get(), content.data(), content.size(), 0));
        Require(entry != nullptr && zip_file_add(archive.get(), name.c_str(), entry.get(), ZIP_FL_ENC_UTF_8) >= 0);
        static_cast<void>(entry.release());
    }
    Require(zip_close(archive.get()) == 0);
    static_cast<void>(archive.release());
    return ContentOf(target.get());
}

}  // namespace kv::lab

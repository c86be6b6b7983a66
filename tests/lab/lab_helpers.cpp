#include "tests/lab/lab_helpers.h"

#include <cstdlib>
#include <zip.h>

#include "foundation/file_utils.h"
#include "platform/utf.h"

namespace kv::lab::test {

std::string WideBytes(std::string_view utf8) { return Utf16LittleEndianBytes(platform::WideFromUtf8(utf8)); }

std::string ZipOf(const Entries& entries) {
    zip_error_t error;
    zip_error_init(&error);
    zip_source_t* target = zip_source_buffer_create(nullptr, 0, 0, &error);
    zip_source_keep(target);
    zip_t* archive = zip_open_from_source(target, ZIP_TRUNCATE, &error);
    EXPECT_NE(archive, nullptr);
    for (const auto& [name, content] : entries) {
        zip_source_t* source = zip_source_buffer(archive, content.data(), content.size(), 0);
        EXPECT_GE(zip_file_add(archive, name.c_str(), source, ZIP_FL_ENC_UTF_8), 0);
    }
    EXPECT_EQ(zip_close(archive), 0) << zip_strerror(archive);
    zip_stat_t facts;
    std::string bytes;
    if (zip_source_stat(target, &facts) == 0 && zip_source_open(target) == 0) {
        bytes.resize(facts.size);
        EXPECT_EQ(zip_source_read(target, bytes.data(), facts.size), static_cast<zip_int64_t>(facts.size));
        zip_source_close(target);
    }
    zip_source_free(target);
    return bytes;
}

std::vector<std::string> StoredRecords(Store& store) {
    std::vector<std::string> texts;
    for (const Record& record : RecordsAfter(store, {}))
        texts.push_back(record.content.file + " " + record.content.text);
    return texts;
}

httplib::Result Upload(httplib::Client& client, const std::string& query, const std::string& body) {
    return client.Post("/servlets/FileCollector?" + query, body, "application/octet-stream");
}

LabFolder::LabFolder() {
    std::string name = (std::filesystem::temp_directory_path() / "kvlab-XXXXXX").string();
    if (!mkdtemp(name.data())) throw std::runtime_error("cannot make a temporary folder");
    folder = name;
    database = folder / "lab.db";
}

}  // namespace kv::lab::test

#include "lab/commands/command_line.h"

#include <cstdio>
#include <filesystem>
#include <fmt/format.h>
#include <fstream>
#include <iterator>

#include "lab/store/archive.h"
#include "lab/store/record_text.h"

namespace kv::lab {

Store OpenExisting(const Given& given) {
    const std::string place = NeededValue(given, "--database");
    if (place.find("://") == std::string::npos && !std::filesystem::exists(place))
        throw NotFoundError("there is no database " + place);
    return OpenStore(place, Opening::existing);
}

std::string StoredValue(const Given& given, const char* name) { return CleanUtf8(Value(given, name)); }

void RequireFile(const std::string& path) {
    if (!std::filesystem::exists(path)) throw NotFoundError("there is no file " + path);
}

std::string ReadPlanFile(const std::string& path) {
    RequireFile(path);
    std::ifstream file(path, std::ios::binary);
    if (!file.is_open() || std::filesystem::is_directory(path)) throw std::runtime_error("cannot read " + path);
    std::string bytes(maxEntryBytes + 1, '\0');  // one more than a plan may have: devices do not end
    file.read(bytes.data(), static_cast<std::streamsize>(bytes.size()));
    bytes.resize(static_cast<std::size_t>(file.gcount()));
    if (file.bad()) throw std::runtime_error("cannot read " + path);
    if (bytes.size() > maxEntryBytes) throw std::runtime_error(path + " is too large for a plan");
    return bytes;
}

void PrintLine(const std::string& line) {
    if (std::puts(line.c_str()) < 0) throw std::runtime_error("cannot write to standard output");
}

void PrintNote(const std::string& note) { fmt::print(stderr, "kvlab: {}\n", note); }

}  // namespace kv::lab
